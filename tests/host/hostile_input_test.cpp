// Inputs and outputs that never end, never start or never fit: a chunk cut off at the end
// of a PNG, devices and sparse files as IES profiles, FIFOs nobody writes to, and OpenEXR
// written onto a full disk. The whole suite runs under a memory cap (see main).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "../image_test_util.h"
#include "host.h"
#include "kelvo/ies.h"
#include "kelvo/io.h"
#include "kelvo/registry.h"

namespace kelvo {
namespace {
namespace fs = std::filesystem;
using namespace testing_images;
using Clock = std::chrono::steady_clock;

std::string Be32(uint32_t v) { return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }

uint32_t Crc(const std::string& bytes) {
    uint32_t crc = 0xffffffffu;
    for (unsigned char c : bytes) {
        crc ^= c;
        for (int k = 0; k < 8; ++k) crc = crc & 1 ? (crc >> 1) ^ 0xedb88320u : crc >> 1;
    }
    return ~crc;
}

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

class HostileInputTest : public testing::Test {
protected:
    void SetUp() override {
        _dir = fs::temp_directory_path() / ("kelvo_hostile_input_" + std::to_string(::getpid()));
        fs::create_directories(_dir);
    }
    void TearDown() override {
        host::InterruptInputs(false);
        fs::remove_all(_dir);
    }
    Url File(const std::string& name) const { return Url::FromFile((_dir / name).string()); }
    fs::path Fifo(const std::string& name) const {
        fs::path p = _dir / name;
        EXPECT_EQ(::mkfifo(p.c_str(), 0600), 0);
        return p;
    }
    static Result<void> ParseIes(const Url& url) {
        auto ies = CreateComponent<IesInterface>();
        if (!ies) return ies.GetError();
        KELVO_ASSIGN_OR_RETURN(StrongRef<InputStream> in, OpenInputStream(url));
        return (*ies)->Init(in);
    }
    fs::path _dir;
};

TEST_F(HostileInputTest, PngChunkCutOffAtTheEndIsNotAllocated) {
    // Only the length and type of a 2 GiB chunk remain: fewer than the 12 bytes of a whole
    // chunk header and CRC.
    const std::string ihdr = Be32(4) + Be32(4) + "\x08\x02" + std::string(3, '\0');
    const std::string head =
        std::string("\x89PNG\r\n\x1a\n", 8) + Be32(13) + "IHDR" + ihdr + Be32(Crc("IHDR" + ihdr));
    for (int cut : {0, 1, 3}) {
        const std::string name = "cut" + std::to_string(cut) + ".png";
        std::ofstream(_dir / name, std::ios::binary)
            << head + Be32(0x7fff0000u) + "zTXt" + std::string(size_t(cut), 'x');
        EXPECT_EQ(ImportImage(File(name)).GetError().Message(),
                  "Cannot read PNG " + File(name).ToString() +
                      ": the file ends early (chunk zTXt claims 2147418112 bytes, " +
                      std::to_string(cut) + " remain).");
    }
}

TEST_F(HostileInputTest, IesInputsBeyondTheBoundFailFast) {
    const std::string message = "IES file is larger than 33554432 bytes";
    // A sparse 6 GB file is refused from its length alone.
    {
        std::ofstream(_dir / "sparse.ies") << "IESNA:LM-63-2002\n";
        fs::resize_file(_dir / "sparse.ies", uint64_t(6) << 30);
        const auto start = Clock::now();
        EXPECT_EQ(ParseIes(File("sparse.ies")).GetError().Message(), message);
        EXPECT_LT(SecondsSince(start), 1.0);
    }
    // A device that never ends: one endless token (random words without a TILT line are
    // the tool's test).
    auto zeros = ParseIes(Url::FromFile("/dev/zero"));
    ASSERT_FALSE(zeros.Ok());
    EXPECT_EQ(zeros.GetError().Message(), message);
    // A profile padded to exactly the bound is read; one byte more and it is refused.
    std::ofstream(_dir / "padded.ies") << "TILT=NONE\n1 1000 1 1 1 1 2 0 0 0\n1 1 1\n0\n0\n100\n";
    fs::resize_file(_dir / "padded.ies", uint64_t(32) << 20);
    auto atBound = ParseIes(File("padded.ies"));
    EXPECT_TRUE(atBound.Ok()) << atBound.GetError().Message();
    fs::resize_file(_dir / "padded.ies", (uint64_t(32) << 20) + 1);
    EXPECT_EQ(ParseIes(File("padded.ies")).GetError().Message(), message);
}

TEST_F(HostileInputTest, FifosNeitherBlockTheOpenNorOutwaitAnInterrupt) {
    // Nobody writes: the open returns at once. Should it block, the helper opening the
    // write end after a few seconds releases it, and the test fails instead of hanging.
    fs::path lonely = Fifo("lonely");
    std::atomic<bool> opened{false};
    std::thread release([&] {
        for (int i = 0; i < 300 && !opened.load(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        int fd = ::open(lonely.c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0) ::close(fd);
    });
    auto start = Clock::now();
    auto stream = OpenInputStream(Url::FromFile(lonely.string()));
    EXPECT_LT(SecondsSince(start), 1.0);
    opened.store(true);
    release.join();
    ASSERT_TRUE(stream.Ok()) << stream.GetError().Message();
    EXPECT_EQ((*stream)->Length(), -1);

    // A writer that holds the FIFO open and sends nothing: the read waits until interrupted.
    fs::path silent = Fifo("silent");
    int writer = ::open(silent.c_str(), O_RDWR);  // keeps a writer without blocking
    ASSERT_GE(writer, 0);
    auto waiting = OpenInputStream(Url::FromFile(silent.string()));
    ASSERT_TRUE(waiting.Ok());
    std::thread interrupt([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        host::InterruptInputs(true);
    });
    char buffer[16];
    start = Clock::now();
    auto read = (*waiting)->Read(buffer, sizeof buffer);
    interrupt.join();
    ASSERT_FALSE(read.Ok());
    EXPECT_EQ(read.GetError().Message(),
              "Cannot read " + Url::FromFile(silent.string()).ToString() + ": interrupted.");
    EXPECT_LT(SecondsSince(start), 0.3 + 2.0);
    host::InterruptInputs(false);

    // What does arrive is read, up to the writer's end.
    ASSERT_EQ(::write(writer, "abc", 3), 3);
    ::close(writer);
    std::string got;
    for (;;) {
        auto n = (*waiting)->Read(buffer, sizeof buffer);
        ASSERT_TRUE(n.Ok()) << n.GetError().Message();
        if (*n == 0) break;
        got.append(buffer, *n);
    }
    EXPECT_EQ(got, "abc");

    // A folder is no input.
    EXPECT_EQ(OpenInputStream(Url::FromFile(_dir.string())).GetError().Message(),
              "Cannot open " + Url::FromFile(_dir.string()).ToString() + ": it is a directory.");
}

// Noise, so that compression cannot make the file small enough to fit.
StrongRef<ImageInterface> Noise(int64_t side) {
    std::vector<float> pixels(size_t(side * side * 4));
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (float& p : pixels) p = u(rng);
    return MakeImage(side, side, kPixelRgba32f, COLORPROFILE::LINEAR, pixels);
}

const Id kExr("net.kelvo.fileformat.imageexr");

// Fills the file system `folder` lies on, so that the next write finds no room.
void FillUp(const fs::path& folder) {
    std::ofstream filler(folder / "filler", std::ios::binary);
    const std::string block(4096, 'x');
    while (filler.write(block.data(), std::streamsize(block.size())) && filler.flush()) {
    }
}

TEST_F(HostileInputTest, OpenExrOntoAFullDiskFailsAndSaysSo) {
    // A small picture: all of it fits in the library's buffers, flushed only at the end.
    auto image = Noise(4);
    for (bool half : {false, true}) {
        DataDictionary options;
        ASSERT_TRUE(options.Set(kExportOptionHalf, half).Ok());
        EXPECT_EQ(
            ExportImage(Url::FromFile("/dev/full"), *image, kExr, options).GetError().Message(),
            "Cannot write OpenEXR file:///dev/full: the disk is full.");
        fs::create_symlink("/dev/full", _dir / "full.exr");
        EXPECT_EQ(ExportImage(File("full.exr"), *image, kExr, options).GetError().Message(),
                  "Cannot write OpenEXR " + File("full.exr").ToString() + ": the disk is full.");
        fs::remove(_dir / "full.exr");
    }
    // A file system that is full, or fills up part-way through the file (needs the right to
    // mount).
    fs::path tiny = _dir / "tiny";
    fs::create_directories(tiny);
    if (::mount("tmpfs", tiny.c_str(), "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
    const Url big = Url::FromFile((tiny / "big.exr").string());
    const Url small = Url::FromFile((tiny / "small.exr").string());
    auto partWay = ExportImage(big, *Noise(128), kExr);
    FillUp(tiny);
    auto full = ExportImage(small, *image, kExr);
    ::umount2(tiny.c_str(), MNT_DETACH);
    ASSERT_FALSE(partWay.Ok());
    EXPECT_EQ(partWay.GetError().Message(),
              "Cannot write OpenEXR " + big.ToString() + ": the disk is full.");
    ASSERT_FALSE(full.Ok());
    EXPECT_EQ(full.GetError().Message(),
              "Cannot write OpenEXR " + small.ToString() + ": the disk is full.");
}

}  // namespace
}  // namespace kelvo

// The cap on memory these inputs are tried under: a hostile input that is allocated whole
// fails its test instead of taking the machine. AddressSanitizer reserves terabytes of
// address space, so there the cap is on one allocation and on resident memory instead.
#if defined(__SANITIZE_ADDRESS__)
extern "C" const char* __asan_default_options() {
    return "max_allocation_size_mb=512:hard_rss_limit_mb=2048:allocator_may_return_null=1";
}
#endif

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    const rlimit cap{rlim_t(4) << 30, rlim_t(4) << 30};
    if (::setrlimit(RLIMIT_AS, &cap) != 0) std::perror("setrlimit");
#endif
    auto module = kelvo::host::AttachModule(g_kelvo, &g_CpuYieldDelegate);
    if (!module) {
        std::fprintf(stderr, "cannot attach the render module: %s\n",
                     module.GetError().ToString().c_str());
        return 1;
    }
    return RUN_ALL_TESTS();
}

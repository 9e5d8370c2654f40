// Writing and reading as an attacker or a full disk would have it: temporary files that
// cannot be hijacked, names at the file system's limit, OpenEXR onto a full disk, and
// inputs that never end, each run of the tool under a memory cap.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "../image_test_util.h"
#include "../modules/render.module/ies_test_util.h"
#include "cli_common.h"
#include "cli_test_util.h"
#include "host.h"

namespace kelvo::cli {
namespace {
namespace fs = std::filesystem;
using namespace testing_cli;

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KELVO_TEST_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define KELVO_TEST_ASAN 1
#endif

// The tool, from another folder, under a memory cap: an input allocated whole fails the
// test instead of taking the machine. AddressSanitizer reserves terabytes of address
// space, so there the cap is on one allocation and on resident memory.
std::string Capped(const std::string& args) {
#if defined(KELVO_TEST_ASAN)
    const std::string cap =
        "ASAN_OPTIONS=$ASAN_OPTIONS:max_allocation_size_mb=512:hard_rss_limit_mb=2048:"
        "allocator_may_return_null=1 ";
#elif defined(__SANITIZE_THREAD__)
    const std::string cap;
#else
    const std::string cap = "ulimit -v 4194304 && ";
#endif
    return "cd / && " + cap + std::string(KELVO_TOOL) + " " + args + " 2>&1";
}

class HostileIoTest : public testing::Test {
protected:
    void SetUp() override {
        host::Initialize();
        _dir = fs::temp_directory_path() / ("kelvo_hostile_io_" + std::to_string(::getpid()));
        fs::create_directories(_dir);
    }
    void TearDown() override { fs::remove_all(_dir); }
    std::string Path(const std::string& name) const { return (_dir / name).string(); }
    static std::string ReadAll(const fs::path& p) {
        std::ifstream in(p, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    // Names in the folder other than those given.
    std::vector<std::string> Others(const std::vector<std::string>& known) const {
        std::vector<std::string> out;
        for (const auto& e : fs::directory_iterator(_dir)) {
            std::string name = e.path().filename().string();
            if (std::find(known.begin(), known.end(), name) == known.end()) out.push_back(name);
        }
        return out;
    }
    fs::path _dir;
};

TEST_F(HostileIoTest, TemporaryFilesAreNewExclusiveAndNeverLinks) {
    // Links planted under the names a counter and the process id would give.
    std::ofstream(_dir / "victim") << "precious";
    std::vector<std::string> planted = {"out.png", "victim"};
    for (int n = 0; n < 64; ++n) {
        std::string name =
            ".out.kelvo-" + std::to_string(::getpid()) + "-" + std::to_string(n) + ".png";
        fs::create_symlink(_dir / "victim", _dir / name);
        planted.push_back(name);
    }
    fs::path seen;
    auto written = WriteOutput(_dir / "out.png", [&](const fs::path& temp) -> Result<void> {
        seen = temp;
        struct stat st;
        EXPECT_EQ(::lstat(temp.c_str(), &st), 0) << "created before the writer opens it";
        EXPECT_TRUE(S_ISREG(st.st_mode));
        EXPECT_EQ(st.st_size, 0);
        EXPECT_EQ(temp.parent_path(), _dir);
        EXPECT_EQ(temp.extension(), ".png");
        std::ofstream(temp) << "new";
        return OK();
    });
    ASSERT_TRUE(written.Ok()) << written.GetError().Message();
    EXPECT_EQ(ReadAll(_dir / "victim"), "precious");
    EXPECT_FALSE(fs::is_symlink(_dir / "out.png"));
    EXPECT_EQ(ReadAll(_dir / "out.png"), "new");
    EXPECT_EQ(std::find(planted.begin(), planted.end(), seen.filename().string()), planted.end());
    EXPECT_EQ(Others(planted), std::vector<std::string>{});
    // A new file gets what the creation mask allows, not the temporary file's 0600.
    const mode_t mask = ::umask(022);
    ASSERT_TRUE(WriteTextFile(_dir / "plain.txt", "x").Ok());
    ::umask(mask);
    EXPECT_EQ(fs::status(_dir / "plain.txt").permissions(),
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                  fs::perms::others_read);

    // A temporary file swapped for a link while written is not renamed into place.
    auto swapped = WriteOutput(_dir / "swap.png", [&](const fs::path& temp) -> Result<void> {
        seen = temp;
        fs::remove(temp);
        fs::create_symlink(_dir / "victim", temp);
        return OK();
    });
    ASSERT_FALSE(swapped.Ok());
    EXPECT_EQ(swapped.GetError().Message(), "Cannot write '" + Path("swap.png") +
                                                "': its temporary file " + seen.string() +
                                                " was replaced while written.");
    EXPECT_FALSE(fs::exists(fs::symlink_status(_dir / "swap.png")));
    EXPECT_FALSE(fs::exists(fs::symlink_status(seen)));
}

TEST_F(HostileIoTest, NamesAtTheFileSystemLimitStillWrite) {
    for (size_t length : {250u, 255u}) {
        const std::string name = std::string(length - 4, 'n') + ".png";
        ASSERT_TRUE(WriteTextFile(_dir / name, "long").Ok()) << length;
        EXPECT_EQ(ReadAll(_dir / name), "long");
        // Multi-byte letters are not cut in half in the temporary name.
        std::string wide;
        while (wide.size() + 2 <= length - 4) wide += "\xc3\xa9";
        ASSERT_TRUE(WriteOutput(_dir / (wide + ".txt"), [&](const fs::path& temp) -> Result<void> {
                        EXPECT_LE(temp.filename().string().size(), 255u);
                        EXPECT_EQ(temp.extension(), ".txt");
                        std::ofstream(temp) << "wide";
                        return OK();
                    }).Ok());
        EXPECT_EQ(ReadAll(_dir / (wide + ".txt")), "wide");
        fs::remove(_dir / name);
        fs::remove(_dir / (wide + ".txt"));
        EXPECT_EQ(Others({}), std::vector<std::string>{});
    }
}

TEST_F(HostileIoTest, OpenExrOntoAFullDiskFailsAndKeepsWhatWasThere) {
    // A small picture: all of it fits in the library's buffers, flushed only at the end.
    std::vector<float> noise(4 * 4 * 3);
    std::mt19937 rng(5);
    for (float& v : noise) v = std::uniform_real_distribution<float>(0, 1)(rng);
    ASSERT_TRUE(
        ExportImage(Url::FromFile(Path("noise.exr")),
                    *testing_images::MakeImage(4, 4, kPixelRgb32f, COLORPROFILE::LINEAR, noise))
            .Ok());
    fs::create_symlink("/dev/full", _dir / "full.exr");
    for (const char* half : {"", " --half"}) {
        EXPECT_EQ(
            Shell(Capped("image convert " + Path("noise.exr") + " " + Path("full.exr") + half)),
            Failed("Cannot write OpenEXR " + Url::FromFile(Path("full.exr")).ToString() +
                   ": the disk is full."))
            << half;
    }
    // A full file system (needs the right to mount): the old file stays, nothing is left.
    fs::path tiny = _dir / "tiny";
    fs::create_directories(tiny);
    if (::mount("tmpfs", tiny.c_str(), "tmpfs", 0, "size=16k") != 0)
        GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
    std::ofstream(tiny / "old.exr") << "old";
    {
        std::ofstream filler(tiny / "filler", std::ios::binary);
        const std::string block(1024, 'x');
        while (filler.write(block.data(), 1024) && filler.flush()) {
        }
    }
    const std::string target = (tiny / "old.exr").string();
    ToolRun ies = Shell(Capped("ies preview " + std::string(KELVO_SOURCE_DIR) +
                               "/resources/ies/kelvo_sample_spot.ies --size 4 -o " + target));
    ToolRun convert = Shell(Capped("image convert " + Path("noise.exr") + " " + target));
    const std::string kept = ReadAll(tiny / "old.exr");
    std::vector<std::string> left;
    for (const auto& e : fs::directory_iterator(tiny)) left.push_back(e.path().filename().string());
    ::umount2(tiny.c_str(), MNT_DETACH);
    std::sort(left.begin(), left.end());
    const ToolRun full =
        Failed("Cannot write OpenEXR " + Url::FromFile(target).ToString() + ": the disk is full.");
    EXPECT_EQ(ies, full);
    EXPECT_EQ(convert, full);
    EXPECT_EQ(kept, "old");
    EXPECT_EQ(left, (std::vector<std::string>{"filler", "old.exr"}));
}

TEST_F(HostileIoTest, EndlessInputsFailFastNamingTheFile) {
    EXPECT_EQ(Shell(Capped("intersect --file /dev/zero")),
              Failed("Illegal argument: OBJ file '/dev/zero' line 1: longer than 65536 "
                     "characters."));
    ToolRun ies = Shell(Capped("ies info /dev/urandom"));
    EXPECT_NE(ies.status, 0);
    EXPECT_NE(ies.out.find("IES file is larger than 33554432 bytes"), std::string::npos) << ies.out;
    std::ofstream(_dir / "big.obj") << "v 0 0 0\n";
    fs::resize_file(_dir / "big.obj", (uint64_t(256) << 20) + 1);
    EXPECT_EQ(Shell(Capped("intersect --file " + Path("big.obj"))),
              Failed("Illegal argument: OBJ file '" + Path("big.obj") +
                     "' is larger than 268435456 bytes."));
}

}  // namespace
}  // namespace kelvo::cli

// Real photometric files of many makers (the shared corpus, read where it lies) and the
// small files of tests/data/ies, checked against the expectations of each folder's README.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "ies_test_util.h"
#include "kelvo/random.h"

namespace kelvo {
namespace {
namespace fs = std::filesystem;
using namespace testing_ies;

struct Expectation {
    std::string file;
    bool fail = false;
    std::string error;  // expected message of a rejected file, when the README names it
    std::optional<int> version, tilt, shape;
    std::optional<Vec3> dims;
    std::optional<double> dataMax;
    std::optional<std::pair<size_t, size_t>> counts;  // nV, nH
};

std::optional<double> Number(const std::string& cell) {
    std::istringstream in(cell);
    double v;
    return in >> v && in.peek() == EOF ? std::optional<double>(v) : std::nullopt;
}

// Rows of the README table: | `file` | source | licence | origin | ver | tilt | type | u |
// nV x nH | V range | H range | M | BF/F | fmt | VER | TILT | SH | dims m | dataMax | notes |
std::vector<Expectation> ReadExpectations(const fs::path& folder) {
    std::vector<Expectation> out;
    std::istringstream lines(ReadFile(folder / "README.md"));
    std::string line;
    while (std::getline(lines, line)) {
        if (!line.starts_with("| `")) continue;
        std::vector<std::string> cells;
        size_t at = 1;
        for (size_t bar; (bar = line.find('|', at)) != std::string::npos; at = bar + 1) {
            std::string c = line.substr(at, bar - at);
            c.erase(0, c.find_first_not_of(' '));
            c.erase(c.find_last_not_of(' ') + 1);
            cells.push_back(c);
        }
        if (cells.size() < 20) continue;
        Expectation e;
        e.file = cells[0].substr(1, cells[0].size() - 2);
        e.fail = cells[14] == "fail";
        if (size_t at = cells[19].find("error \""); at != std::string::npos) {
            at += 7;
            e.error = cells[19].substr(at, cells[19].find('"', at) - at);
        }
        if (auto v = Number(cells[14])) e.version = int(*v);
        if (auto v = Number(cells[15])) e.tilt = int(*v);
        if (auto v = Number(cells[16])) e.shape = int(*v);
        std::istringstream dims(cells[17]);
        Vec3 d;
        if (dims >> d.x >> d.y >> d.z) e.dims = d;
        e.dataMax = Number(cells[18]);
        size_t x = cells[8].find('x');
        auto nV = Number(cells[8].substr(0, x)),
             nH = x == std::string::npos ? std::nullopt : Number(cells[8].substr(x + 1));
        if (nV && nH) e.counts = {size_t(*nV), size_t(*nH)};
        out.push_back(e);
    }
    return out;
}

Data Property(const IesInterface& ies, int key) {
    const Data* d = ies.GetProperties().Find(int64_t(key));
    return d ? *d : Data();
}

bool IsIes(const fs::path& p) {
    std::string ext = p.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), ::tolower);
    return ext == ".ies";
}

// README values carry about six significant digits.
void ExpectClose(double actual, double expected, const std::string& what) {
    EXPECT_NEAR(actual, expected, 1e-6 + 1e-5 * std::fabs(expected)) << what;
}

void CheckFolder(const fs::path& folder) {
    std::vector<Expectation> expectations = ReadExpectations(folder);
    ASSERT_FALSE(expectations.empty()) << folder;
    size_t files = 0;
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (!IsIes(entry.path())) continue;
        ++files;
        const std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        auto e = std::find_if(expectations.begin(), expectations.end(),
                              [&](const Expectation& x) { return x.file == name; });
        ASSERT_NE(e, expectations.end()) << "no README line";
        std::string bytes = ReadFile(entry.path());
        Parsed p = ParseText(bytes);
        if (e->fail) {
            ASSERT_FALSE(p.result.Ok());
            if (!e->error.empty()) {
                EXPECT_EQ(p.result.GetError().Message(), e->error);
            }
            continue;
        }
        ASSERT_TRUE(p.result.Ok()) << p.result.GetError().Message();
        const DataDictionary& props = p.ies->GetProperties();
        IesRawData raw = p.ies->GetRawAccess();
        for (auto [key, want] :
             {std::pair{IESPROPERTY_VERSION, e->version}, std::pair{IESPROPERTY_TILT, e->tilt},
              std::pair{IESPROPERTY_SHAPE, e->shape}})
            if (want) {
                EXPECT_EQ(props.Get<int>(int64_t(key), -1), *want) << key;
            }
        Vec3 dims = props.Get<Vec3>(int64_t(IESPROPERTY_DIMENSIONS), Vec3{-1, -1, -1});
        if (e->dims) {
            ExpectClose(dims.x, e->dims->x, "width");
            ExpectClose(dims.y, e->dims->y, "length");
            ExpectClose(dims.z, e->dims->z, "height");
        }
        if (e->dataMax) ExpectClose(raw.dataMax, *e->dataMax, "dataMax");
        if (e->counts) {
            EXPECT_EQ(raw.anglesVertical.size(), e->counts->first);
            EXPECT_EQ(raw.anglesHorizontal.size(), e->counts->second);
        }

        // Evaluation stays finite and non-negative; the power lies in (0, 4π].
        Random random(11);
        for (int i = 0; i < 2000; ++i) {
            Vec3 d =
                Normalize(Vec3{random.Get01() - 0.5, random.Get01() - 0.5, random.Get01() - 0.5});
            double v = p.ies->ComputeLightIntensity(d);
            ASSERT_TRUE(std::isfinite(v) && v >= 0.0) << d.x << " " << d.y << " " << d.z;
        }
        EXPECT_GT(raw.dataPower, 0.0);
        EXPECT_LE(raw.dataPower, 12.566370614359172);

        // Round trip: the same angles, values and header text, multiplier 1, dimensions
        // non-negative; the same bytes whichever way the stream delivers them.
        auto text = p.ies->ConvertToText();
        ASSERT_TRUE(text.Ok());
        Parsed back = ParseText(*text, 7);
        ASSERT_TRUE(back.result.Ok()) << back.result.GetError().Message();
        IesRawData b = back.ies->GetRawAccess();
        EXPECT_TRUE(std::ranges::equal(raw.anglesVertical, b.anglesVertical));
        EXPECT_TRUE(std::ranges::equal(raw.anglesHorizontal, b.anglesHorizontal));
        EXPECT_TRUE(std::ranges::equal(raw.data, b.data));
        EXPECT_EQ(raw.dataMax, b.dataMax);
        EXPECT_EQ(text->find("\n1 1 1 "), text->find("TILT=NONE\n") + 9);
        for (int key : {IESPROPERTY_VERSION, IESPROPERTY_MANUFAC, IESPROPERTY_LUMCAT,
                        IESPROPERTY_LUMINAIRE, IESPROPERTY_LAMPCAT, IESPROPERTY_LAMP})
            EXPECT_EQ(Property(*back.ies, key), Property(*p.ies, key)) << key;
        EXPECT_EQ(back.ies->GetProperties().Get<Vec3>(int64_t(IESPROPERTY_DIMENSIONS)), dims);
        EXPECT_TRUE(dims.x >= 0 && dims.y >= 0 && dims.z >= 0);
        EXPECT_EQ(ParseText(bytes, 5).ies->GetChecksum(), p.ies->GetChecksum());
    }
    EXPECT_EQ(files, expectations.size()) << "README lines without a file";
}

TEST(IesFilesTest, SharedCorpusParsesEvaluatesAndRoundTrips) {
    fs::path folder = fs::path(KELVO_SHARED_DIR) / "data" / "ies";
    if (!fs::is_directory(folder)) GTEST_SKIP() << "shared data absent: " << folder;
    CheckFolder(folder);
}

TEST(IesFilesTest, RepositoryFilesParseEvaluateAndRoundTrip) {
    CheckFolder(fs::path(KELVO_SOURCE_DIR) / "tests" / "data" / "ies");
}

}  // namespace
}  // namespace kelvo

// kelvo bsdf: evaluates the legacy BSDF models and the microfacet distributions, one JSON
// request a line on stdin, one answer a line on stdout (see README).
#include <iostream>
#include <map>
#include <memory>
#include <vector>

#include "bsdf_plot.h"
#include "cli_common.h"
#include "commands.h"
#include "kelvo/legacy_renderers/bsdf_legacy.h"
#include "kelvo/legacy_renderers/bsdfdata_json.h"
#include "kelvo/legacy_renderers/legacystate.h"
#include "kelvo/legacy_renderers/microfacetdistribution.h"
#include "kelvo/legacy_renderers/microfacetdistributioncaches.h"
#include "kelvo/registry.h"

namespace kelvo::cli {

namespace {
using nlohmann::json;

using Distribution = StrongRef<MicrofacetDistributionInterface>;

// A fresh distribution of a kind, created by id through the registry.
Result<Distribution> MakeDistribution(const std::string& kind) {
    Result<Id> id = Id::FromText("net.kelvo.render.microfacetdistributionclass." + kind);
    if (!id || !FindClass(*id, MicrofacetDistributionInterface::InterfaceId()))
        return IllegalArgumentError(
            KELVO_HERE, "Unknown distribution '@' (beckmann, ggx, phong, ward, anisotropic).",
            kind);
    return CreateClass<MicrofacetDistributionInterface>(*id);
}

// A run keeps at most this many caches objects it has replaced: 19 MB each, kept only
// because objects given their tables may still read them.
constexpr size_t kMaxRetiredCaches = 8;

// Everything a run keeps: its named objects and the caches object (and those it replaced
// while objects may still read them).
class BsdfSession {
public:
    // The answer's members after the echoed "op" and "name".
    Result<void> Handle(const json& request, JsonWriter& w);
    Result<StrongRef<BSDFLegacyInterface>> Model(const json& request);

private:
    Result<MicrofacetDistributionCachesInterface*> Caches();
    Result<DataDictionary> ReadRecord(const json& request);
    Result<Distribution> FindDistribution(const json& request);
    Result<void> ModelOperation(const std::string& op, const json& request, JsonWriter& w);
    Result<void> DistributionOperation(const std::string& op, const json& request, JsonWriter& w);
    Result<void> CacheEntries(const json& request, JsonWriter& w);
    Result<void> CachesOperation(const json& request, JsonWriter& w);
    Result<void> State(const json& request, JsonWriter& w);

    StrongRef<MicrofacetDistributionCachesInterface> _caches;
    bool _cachesHandedOut = false;  // some object was given the tables
    std::vector<StrongRef<MicrofacetDistributionCachesInterface>> _retired;
    std::map<std::string, StrongRef<BSDFLegacyInterface>> _models;
    std::map<std::string, Distribution> _distributions;
};

Result<std::array<float, kSampleRecordFloats>> ReadSample(const json& request) {
    std::array<float, kSampleRecordFloats> record{};
    const json& v = Member(request, "sample");
    if (!v.is_array() || v.size() > kSampleRecordFloats)
        return IllegalArgumentError(KELVO_HERE, "sample must be an array of at most 9 numbers.");
    for (size_t i = 0; i < v.size(); ++i) {
        KELVO_ASSIGN_OR_RETURN(double x, ReadNumber(v[i], "sample"));
        record[i] = float(x);
    }
    return record;
}

Result<MicrofacetDistributionCachesInterface*> BsdfSession::Caches() {
    if (!_caches) {
        KELVO_ASSIGN_OR_RETURN(_caches, CreateComponent<MicrofacetDistributionCachesInterface>());
        KELVO_TRY(_caches->Alloc());
        _caches->Init();
    }
    return _caches.get();
}

// The data record of a request: "data" by key (the suffix after
// "net.kelvo.render.bsdfdata." or the whole id), and the run's tables when "caches" is true.
// "tableKind" and "level" give the blurry lobe its table and rows.
Result<DataDictionary> BsdfSession::ReadRecord(const json& request) {
    DataDictionary record;
    KELVO_ASSIGN_OR_RETURN(bool caches, BoolMember(request, "caches", false));
    if (caches) {
        KELVO_ASSIGN_OR_RETURN(auto* c, Caches());
        KELVO_TRY(bsdfdata::SetDistributionTables(record, c));
        _cachesHandedOut = true;
    }
    if (request.contains("tableKind")) {
        KELVO_ASSIGN_OR_RETURN(auto* c, Caches());
        KELVO_ASSIGN_OR_RETURN(int64_t kind,
                               IntegerMember(request, "tableKind", -1, INT32_MIN, INT32_MAX));
        KELVO_ASSIGN_OR_RETURN(int64_t level, IntegerMember(request, "level", 0));
        if (!c->GetCache(int32_t(kind)))
            return IllegalArgumentError(KELVO_HERE, "Distribution kind @ has no table.", kind);
        if (level < 0 || level > 400)
            return IllegalArgumentError(KELVO_HERE, "level must be 0..400, not @.", level);
        KELVO_TRY(bsdfdata::SetTable(record, bsdfdata::kBlurryTable, c->GetCache(int32_t(kind))));
        _cachesHandedOut = true;
        KELVO_TRY(record.Set(bsdfdata::kBlurryDensityRow, 2000 * level));
        KELVO_TRY(record.Set(bsdfdata::kBlurrySamplingRow, 1000 * level));
    }
    if (request.contains("data"))
        KELVO_TRY(bsdfdata::ReadJson(request["data"], record, ReadNumber,
                                     "@ is set by \"caches\": true."));
    return record;
}

// The named model (updated first when the request has data), or a new one made from
// "model" and initialised from the request's record.
Result<StrongRef<BSDFLegacyInterface>> BsdfSession::Model(const json& request) {
    if (request.contains("name") && !request.contains("model")) {
        KELVO_ASSIGN_OR_RETURN(std::string name, StringMember(request, "name"));
        auto it = _models.find(name);
        if (it == _models.end())
            return IllegalArgumentError(KELVO_HERE, "No model named '@'.", name);
        if (request.contains("data") || request.contains("caches") ||
            request.contains("tableKind")) {
            KELVO_ASSIGN_OR_RETURN(DataDictionary record, ReadRecord(request));
            KELVO_TRY(it->second->Update(record));
        }
        return it->second;
    }
    KELVO_ASSIGN_OR_RETURN(std::string suffix, StringMember(request, "model"));
    KELVO_ASSIGN_OR_RETURN(Id id, Id::FromText("net.kelvo.render.bsdflegacyclass." + suffix));
    KELVO_ASSIGN_OR_RETURN(StrongRef<BSDFLegacyInterface> model,
                           CreateClass<BSDFLegacyInterface>(id));
    KELVO_ASSIGN_OR_RETURN(DataDictionary record, ReadRecord(request));
    KELVO_TRY(model->Init(record));
    return model;
}

// A new distribution of "distribution" updated from the request, or the named one
// (updated when the request has data).
Result<Distribution> BsdfSession::FindDistribution(const json& request) {
    Distribution d;
    if (request.contains("distribution")) {
        KELVO_ASSIGN_OR_RETURN(std::string kind, StringMember(request, "distribution"));
        KELVO_ASSIGN_OR_RETURN(d, MakeDistribution(kind));
    } else {
        KELVO_ASSIGN_OR_RETURN(std::string name, StringMember(request, "name"));
        auto it = _distributions.find(name);
        if (it == _distributions.end())
            return IllegalArgumentError(KELVO_HERE, "No distribution named '@'.", name);
        d = it->second;
        if (!request.contains("data") && !request.contains("caches")) return d;
    }
    KELVO_ASSIGN_OR_RETURN(DataDictionary record, ReadRecord(request));
    KELVO_TRY(d->Update(record));
    return d;
}

Result<void> BsdfSession::ModelOperation(const std::string& op, const json& request,
                                         JsonWriter& w) {
    KELVO_ASSIGN_OR_RETURN(StrongRef<BSDFLegacyInterface> m, Model(request));
    if (op == "new" || op == "update") {
        KELVO_ASSIGN_OR_RETURN(std::string name, StringMember(request, "name"));
        if (op == "new") _models[name] = m;
    } else if (op == "reset") {
        m->Reset();
    } else if (op == "ComputeBSDF") {
        KELVO_ASSIGN_OR_RETURN(Vec3 wo, Vec3Member(request, "wo"));
        KELVO_ASSIGN_OR_RETURN(Vec3 wi, Vec3Member(request, "wi"));
        Vec3 wl = wi;
        if (request.contains("wl")) {
            KELVO_ASSIGN_OR_RETURN(wl, Vec3Member(request, "wl"));
        }
        double density = 0.0;
        Col3 v = m->ComputeBSDF(wo, wi, wl, density);
        w.Key("value").Vec(Vec3{v.r, v.g, v.b}).Key("density").Number(density);
    } else if (op == "SampleF") {
        KELVO_ASSIGN_OR_RETURN(Vec3 wo, Vec3Member(request, "wo"));
        KELVO_ASSIGN_OR_RETURN(auto sample, ReadSample(request));
        Vec3 wi;
        double density = 0.0;
        Col3 v = m->SampleF(wo, sample.data(), wi, density);
        w.Key("value").Vec(Vec3{v.r, v.g, v.b}).Key("wi").Vec(wi).Key("density").Number(density);
    } else if (op == "PdfIndirect") {
        KELVO_ASSIGN_OR_RETURN(Vec3 wo, Vec3Member(request, "wo"));
        KELVO_ASSIGN_OR_RETURN(Vec3 wi, Vec3Member(request, "wi"));
        w.Key("density").Number(m->PdfIndirect(wo, wi));
    } else if (op == "ComputeBSDFFrame") {
        KELVO_ASSIGN_OR_RETURN(Vec3 n, Vec3Member(request, "normal"));
        Vec3 u, v;
        if (request.contains("u")) {
            KELVO_ASSIGN_OR_RETURN(u, Vec3Member(request, "u"));
        }
        if (request.contains("v")) {
            KELVO_ASSIGN_OR_RETURN(v, Vec3Member(request, "v"));
        }
        KELVO_ASSIGN_OR_RETURN(bool useTangents, BoolMember(request, "useTangents", false));
        BsdfFrame f = m->ComputeBSDFFrame(n, u, v, useTangents);
        w.Key("normal").Vec(f.normal).Key("u").Vec(f.tangentU).Key("v").Vec(f.tangentV);
    } else if (op == "ComputeMIPAngle") {
        KELVO_ASSIGN_OR_RETURN(double a, NumberMember(request, "angle"));
        w.Key("angle").Number(m->ComputeMIPAngle(a));
    } else if (op == "ComputeAngle") {
        KELVO_ASSIGN_OR_RETURN(auto sample, ReadSample(request));
        w.Key("cosine").Number(m->ComputeAngle(sample.data()));
    } else {  // ComputeF_UVW
        Col3 v = m->ComputeF_UVW();
        w.Key("value").Vec(Vec3{v.r, v.g, v.b});
    }
    return OK();
}

Result<void> BsdfSession::DistributionOperation(const std::string& op, const json& request,
                                                JsonWriter& w) {
    if (op == "newDistribution") {
        KELVO_ASSIGN_OR_RETURN(std::string name, StringMember(request, "name"));
        KELVO_ASSIGN_OR_RETURN(Distribution d, FindDistribution(request));
        _distributions[name] = d;
        return OK();
    }
    KELVO_ASSIGN_OR_RETURN(Distribution d, FindDistribution(request));
    if (op == "D") {
        KELVO_ASSIGN_OR_RETURN(Vec3 h, Vec3Member(request, "h"));
        KELVO_ASSIGN_OR_RETURN(bool useTable, BoolMember(request, "useTable", true));
        double density = 0.0;
        double v = d->D(h, useTable, density);
        w.Key("D").Number(v).Key("density").Number(density);
    } else if (op == "G") {
        KELVO_ASSIGN_OR_RETURN(Vec3 a, Vec3Member(request, "first"));
        KELVO_ASSIGN_OR_RETURN(Vec3 b, Vec3Member(request, "second"));
        KELVO_ASSIGN_OR_RETURN(Vec3 h, Vec3Member(request, "h"));
        w.Key("G").Number(d->G(a, b, h));
    } else {  // Sample
        KELVO_ASSIGN_OR_RETURN(auto sample, ReadSample(request));
        double dv = 0.0, density = 0.0;
        Vec3 h = d->Sample(sample.data(), dv, density);
        w.Key("h").Vec(h).Key("D").Number(dv).Key("density").Number(density);
    }
    return OK();
}

// Entries of a distribution table as stored: "kind", first "index" and "count".
Result<void> BsdfSession::CacheEntries(const json& request, JsonWriter& w) {
    KELVO_ASSIGN_OR_RETURN(auto* c, Caches());
    KELVO_ASSIGN_OR_RETURN(int64_t kind, IntegerMember(request, "kind", -1, INT32_MIN, INT32_MAX));
    float* table = c->GetCache(int32_t(kind));
    if (!table) return IllegalArgumentError(KELVO_HERE, "Distribution kind @ has no table.", kind);
    KELVO_ASSIGN_OR_RETURN(int64_t index, IntegerMember(request, "index", 0));
    KELVO_ASSIGN_OR_RETURN(int64_t count, IntegerMember(request, "count", 1));
    constexpr int64_t kSize = int64_t(kSamplerCacheFloats);
    if (index < 0 || count < 0 || index > kSize || count > kSize - index) {
        // The last entry asked for, without overflowing for absurd requests.
        int64_t last = count > 0 && index > INT64_MAX - (count - 1) ? INT64_MAX : index + count - 1;
        return IllegalArgumentError(KELVO_HERE, "Entries @..@ are outside the table.", index, last);
    }
    w.Key("values").Array();
    for (int64_t i = 0; i < count; ++i) w.Number(table[index + i]);
    w.End();
    return OK();
}

// "fresh": true starts a new caches object for the requests that follow; the answer
// counts the computed entries of each table.
Result<void> BsdfSession::CachesOperation(const json& request, JsonWriter& w) {
    KELVO_ASSIGN_OR_RETURN(bool fresh, BoolMember(request, "fresh", false));
    if (fresh && _caches) {
        if (_cachesHandedOut) {
            if (_retired.size() == kMaxRetiredCaches)
                return IllegalArgumentError(KELVO_HERE,
                                            "A run keeps at most @ replaced caches objects.",
                                            kMaxRetiredCaches);
            _retired.push_back(_caches);
        }
        _caches = nullptr;
        _cachesHandedOut = false;
    }
    KELVO_ASSIGN_OR_RETURN(auto* c, Caches());
    w.Key("computed").Array();
    for (int32_t kind = 0; kind < kDistributionTableCount; ++kind) {
        const float* table = c->GetCache(kind);
        int64_t computed = 0;
        for (size_t i = 0; i < kSamplerCacheFloats; ++i) computed += table[i] >= -0.5f;
        w.Integer(computed);
    }
    w.End();
    return OK();
}

// The derived fields of a named object, or of one made from "model" or "distribution":
// updated from "data" and "caches" when given, never updated otherwise.
Result<void> BsdfSession::State(const json& request, JsonWriter& w) {
    StrongRef<Object> object;
    if (request.contains("model") || request.contains("distribution")) {
        const bool update =
            request.contains("data") || request.contains("caches") || request.contains("tableKind");
        if (request.contains("distribution")) {
            KELVO_ASSIGN_OR_RETURN(std::string kind, StringMember(request, "distribution"));
            KELVO_ASSIGN_OR_RETURN(Distribution d, MakeDistribution(kind));
            if (update) {
                KELVO_ASSIGN_OR_RETURN(DataDictionary record, ReadRecord(request));
                KELVO_TRY(d->Update(record));
            }
            object = d;
        } else if (update) {
            KELVO_ASSIGN_OR_RETURN(object, Model(request));
        } else {
            KELVO_ASSIGN_OR_RETURN(std::string suffix, StringMember(request, "model"));
            KELVO_ASSIGN_OR_RETURN(Id id,
                                   Id::FromText("net.kelvo.render.bsdflegacyclass." + suffix));
            KELVO_ASSIGN_OR_RETURN(object, CreateClass<BSDFLegacyInterface>(id));
        }
    } else {
        KELVO_ASSIGN_OR_RETURN(std::string name, StringMember(request, "name"));
        if (auto m = _models.find(name); m != _models.end())
            object = m->second;
        else if (auto d = _distributions.find(name); d != _distributions.end())
            object = d->second;
        else
            return IllegalArgumentError(KELVO_HERE, "No model or distribution named '@'.", name);
    }
    StrongRef<LegacyStateInterface> state = Query<LegacyStateInterface>(object);
    if (!state) return IllegalArgumentError(KELVO_HERE, "The object has no state to show.");
    w.Key("state").Object();
    state->VisitState([&w](std::string_view field, const Data& value) {
        w.Key(field);
        if (const bool* b = value.Get<bool>())
            w.Bool(*b);
        else if (const int64_t* i = value.Get<int64_t>())
            w.Integer(*i);
        else if (const double* d = value.Get<double>())
            w.Number(*d);
        else
            w.Null();
    });
    w.End();
    return OK();
}

Result<void> BsdfSession::Handle(const json& request, JsonWriter& w) {
    if (!request.is_object())
        return IllegalArgumentError(KELVO_HERE, "A request must be an object.");
    KELVO_ASSIGN_OR_RETURN(std::string op, StringMember(request, "op"));
    static const char* const kModelOps[] = {
        "new",         "update",           "reset",           "ComputeBSDF",  "SampleF",
        "PdfIndirect", "ComputeBSDFFrame", "ComputeMIPAngle", "ComputeAngle", "ComputeF_UVW"};
    for (const char* m : kModelOps) {
        if (op != m) continue;
        if (op == "new" && request.contains("distribution"))
            return DistributionOperation("newDistribution", request, w);
        const json& name = Member(request, "name");
        if (op == "update" && name.is_string() &&
            _distributions.count(name.get_ref<const std::string&>())) {
            KELVO_TRY(FindDistribution(request));
            return OK();
        }
        return ModelOperation(op, request, w);
    }
    if (op == "D" || op == "G" || op == "Sample") return DistributionOperation(op, request, w);
    if (op == "cache") return CacheEntries(request, w);
    if (op == "caches") return CachesOperation(request, w);
    if (op == "state") return State(request, w);
    if (op == "models") {
        w.Key("models").Array();
        for (const EntryRecord* e : RegistryMembers(kBsdfLegacyClassesRegistry))
            w.String(e->GetId().Text());
        w.End().Key("keys").Array();
        for (const auto& k : bsdfdata::kKeys) w.String(k.key.Text());
        w.End();
        return OK();
    }
    return IllegalArgumentError(KELVO_HERE, "Unknown operation '@'.", op);
}

}  // namespace

void AddBsdfCommand(CLI::App& app, Context& context, int& status) {
    auto* cmd = app.add_subcommand(
        "bsdf",
        "Evaluate the legacy BSDF models and microfacet distributions: one JSON request a line "
        "on stdin, one answer a line on stdout");
    auto* plot = cmd->add_subcommand(
        "plot",
        "Write a PNG picture of a model's lobe: a polar plot of value x |cos| in the plane "
        "of incidence and maps of the upper and lower hemisphere");
    struct PlotOptions {
        std::string model, data = "{}", out;
        std::vector<double> wo{0.5, 0.0, 0.8660254037844386};
        int size = 256;
        bool caches = false;
    };
    auto options = std::make_shared<PlotOptions>();
    plot->add_option("-m,--model", options->model, "Model: the class id suffix, e.g. ggxbrdf")
        ->required();
    plot->add_option("-d,--data", options->data,
                     "BSDF data record as a JSON object, keys as for kelvo bsdf");
    plot->add_option("--wo", options->wo, "View direction x y z (normalised)")->expected(3);
    plot->add_flag("--caches", options->caches, "Use the distribution tables");
    plot->add_option("--size", options->size, "Panel size in pixels (16..2048)");
    plot->add_option("-o,--out", options->out, "PNG file to write (default <model>-lobe.png)");
    cmd->callback([&context, &status, plot, options] {
        RunCommand(context, status, [&]() -> Result<void> {
            BsdfSession session;
            if (!plot->parsed()) {
                // Failed requests answer in line; the run itself succeeds.
                KELVO_TRY(RunJsonLines(StandardInput(), std::cout,
                                       [&](const json& request, JsonWriter& answer) {
                                           return session.Handle(request, answer);
                                       }));
                return OK();
            }
            json data = json::parse(options->data, nullptr, false);
            if (data.is_discarded() || !data.is_object())
                return IllegalArgumentError(KELVO_HERE, "--data must be a JSON object.");
            if (options->size < 16 || options->size > 2048)
                return IllegalArgumentError(KELVO_HERE, "--size must be 16..2048, not @.",
                                            options->size);
            json request{{"model", options->model}, {"data", data}, {"caches", options->caches}};
            KELVO_ASSIGN_OR_RETURN(auto model, session.Model(request));
            Vec3 wo = Normalize(Vec3{options->wo[0], options->wo[1], options->wo[2]});
            if (wo == Vec3{})
                return IllegalArgumentError(KELVO_HERE, "--wo must not be the zero vector.");
            std::string out = options->out.empty() ? options->model + "-lobe.png" : options->out;
            KELVO_TRY(WritePicture(out, DrawLobe(*model, wo, options->size).View()));
            std::cout << "kelvo bsdf plot: wrote " << out << '\n';
            return OK();
        });
    });
}

}  // namespace kelvo::cli

// kelvo bsdf: evaluates the legacy BSDF models and the microfacet distributions, one JSON
// request a line on stdin, one answer a line on stdout (see README).
#include <iostream>
#include <map>
#include <memory>

#include "bsdf_plot.h"
#include "context.h"
#include "json.h"
#include "kelvo/legacy_renderers/bsdf_legacy.h"
#include "kelvo/legacy_renderers/bsdfdata.h"
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

// Everything a run keeps: its named objects and the one caches object.
class BsdfSession {
public:
    Result<std::string> Handle(const json& request);
    Result<StrongRef<BSDFLegacyInterface>> Model(const json& request);

private:
    Result<MicrofacetDistributionCachesInterface*> Caches();
    Result<DataDictionary> ReadRecord(const json& request);
    Result<Distribution> FindDistribution(const json& request);
    Result<std::string> ModelOperation(const std::string& op, const json& request);
    Result<std::string> DistributionOperation(const std::string& op, const json& request);

    StrongRef<MicrofacetDistributionCachesInterface> _caches;
    std::map<std::string, StrongRef<BSDFLegacyInterface>> _models;
    std::map<std::string, Distribution> _distributions;
};

Result<std::string> Text(const json& request, const char* key) {
    if (!request.contains(key) || !request[key].is_string())
        return IllegalArgumentError(KELVO_HERE, "@ must be a string.", key);
    return request[key].get<std::string>();
}

Result<std::array<float, kSampleRecordFloats>> ReadSample(const json& request) {
    std::array<float, kSampleRecordFloats> record{};
    const json& v = request.contains("sample") ? request["sample"] : json();
    if (!v.is_array() || v.size() > kSampleRecordFloats)
        return IllegalArgumentError(KELVO_HERE, "sample must be an array of at most 9 numbers.");
    for (size_t i = 0; i < v.size(); ++i) {
        KELVO_ASSIGN_OR_RETURN(double x, ReadNumber(v[i], "sample"));
        record[i] = float(x);
    }
    return record;
}

Result<Vec3> Vector(const json& request, const char* key) {
    if (!request.contains(key)) return IllegalArgumentError(KELVO_HERE, "@ is missing.", key);
    return ReadVec3(request[key], key);
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
    bool caches = request.value("caches", false);
    if (caches) {
        KELVO_ASSIGN_OR_RETURN(auto* c, Caches());
        KELVO_TRY(bsdfdata::SetDistributionTables(record, c));
    }
    if (request.contains("tableKind")) {
        KELVO_ASSIGN_OR_RETURN(auto* c, Caches());
        int kind = request.value("tableKind", -1);
        int level = request.value("level", 0);
        if (!c->GetCache(kind))
            return IllegalArgumentError(KELVO_HERE, "Distribution kind @ has no table.", kind);
        if (level < 0 || level > 400)
            return IllegalArgumentError(KELVO_HERE, "level must be 0..400, not @.", level);
        KELVO_TRY(bsdfdata::SetTable(record, bsdfdata::kBlurryTable, c->GetCache(kind)));
        KELVO_TRY(record.Set(bsdfdata::kBlurryDensityRow, int64_t(2000) * level));
        KELVO_TRY(record.Set(bsdfdata::kBlurrySamplingRow, int64_t(1000) * level));
    }
    if (!request.contains("data")) return record;
    const json& data = request["data"];
    if (!data.is_object()) return IllegalArgumentError(KELVO_HERE, "data must be an object.");
    for (const auto& [name, value] : data.items()) {
        const bsdfdata::KeyInfo* info = nullptr;
        for (const auto& k : bsdfdata::kKeys) {
            std::string_view id = k.key.Text();
            if (id == name || id.substr(id.rfind('.') + 1) == name) info = &k;
        }
        if (!info) return IllegalArgumentError(KELVO_HERE, "Unknown BSDF data key '@'.", name);
        switch (info->type) {
            case bsdfdata::KEYTYPE::DOUBLE: {
                KELVO_ASSIGN_OR_RETURN(double v, ReadNumber(value, name));
                KELVO_TRY(record.Set(info->key, v));
                break;
            }
            case bsdfdata::KEYTYPE::INT:
                if (!value.is_number_integer())
                    return IllegalArgumentError(KELVO_HERE, "@ must be an integer.", name);
                KELVO_TRY(record.Set(info->key, value.get<int64_t>()));
                break;
            case bsdfdata::KEYTYPE::BOOL:
                if (!value.is_boolean())
                    return IllegalArgumentError(KELVO_HERE, "@ must be true or false.", name);
                KELVO_TRY(record.Set(info->key, value.get<bool>()));
                break;
            case bsdfdata::KEYTYPE::STRING:
                if (!value.is_string())
                    return IllegalArgumentError(KELVO_HERE, "@ must be a string.", name);
                KELVO_TRY(record.Set(info->key, value.get<std::string>()));
                break;
            case bsdfdata::KEYTYPE::VEC2: {
                KELVO_ASSIGN_OR_RETURN(Vec2 v, ReadVec2(value, name));
                KELVO_TRY(record.Set(info->key, v));
                break;
            }
            case bsdfdata::KEYTYPE::TABLE:
                return IllegalArgumentError(KELVO_HERE, "@ is set by \"caches\": true.", name);
        }
    }
    return record;
}

// The named model (updated first when the request has data), or a new one made from
// "model" and initialised from the request's record.
Result<StrongRef<BSDFLegacyInterface>> BsdfSession::Model(const json& request) {
    if (request.contains("name") && !request.contains("model")) {
        KELVO_ASSIGN_OR_RETURN(std::string name, Text(request, "name"));
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
    KELVO_ASSIGN_OR_RETURN(std::string suffix, Text(request, "model"));
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
        KELVO_ASSIGN_OR_RETURN(std::string kind, Text(request, "distribution"));
        KELVO_ASSIGN_OR_RETURN(d, MakeDistribution(kind));
    } else {
        KELVO_ASSIGN_OR_RETURN(std::string name, Text(request, "name"));
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

Result<std::string> BsdfSession::ModelOperation(const std::string& op, const json& request) {
    KELVO_ASSIGN_OR_RETURN(StrongRef<BSDFLegacyInterface> m, Model(request));
    JsonWriter w;
    w.Object();
    if (op == "new" || op == "update") {
        KELVO_ASSIGN_OR_RETURN(std::string name, Text(request, "name"));
        if (op == "new") _models[name] = m;
        w.Key("name").String(name);
    } else if (op == "reset") {
        m->Reset();
    } else if (op == "ComputeBSDF") {
        KELVO_ASSIGN_OR_RETURN(Vec3 wo, Vector(request, "wo"));
        KELVO_ASSIGN_OR_RETURN(Vec3 wi, Vector(request, "wi"));
        Vec3 wl = wi;
        if (request.contains("wl")) {
            KELVO_ASSIGN_OR_RETURN(wl, Vector(request, "wl"));
        }
        double density = 0.0;
        Col3 v = m->ComputeBSDF(wo, wi, wl, density);
        w.Key("value").Vec(Vec3{v.r, v.g, v.b}).Key("density").Number(density);
    } else if (op == "SampleF") {
        KELVO_ASSIGN_OR_RETURN(Vec3 wo, Vector(request, "wo"));
        KELVO_ASSIGN_OR_RETURN(auto sample, ReadSample(request));
        Vec3 wi;
        double density = 0.0;
        Col3 v = m->SampleF(wo, sample.data(), wi, density);
        w.Key("value").Vec(Vec3{v.r, v.g, v.b}).Key("wi").Vec(wi).Key("density").Number(density);
    } else if (op == "PdfIndirect") {
        KELVO_ASSIGN_OR_RETURN(Vec3 wo, Vector(request, "wo"));
        KELVO_ASSIGN_OR_RETURN(Vec3 wi, Vector(request, "wi"));
        w.Key("density").Number(m->PdfIndirect(wo, wi));
    } else if (op == "ComputeBSDFFrame") {
        KELVO_ASSIGN_OR_RETURN(Vec3 n, Vector(request, "normal"));
        Vec3 u, v;
        if (request.contains("u")) {
            KELVO_ASSIGN_OR_RETURN(u, Vector(request, "u"));
        }
        if (request.contains("v")) {
            KELVO_ASSIGN_OR_RETURN(v, Vector(request, "v"));
        }
        BsdfFrame f = m->ComputeBSDFFrame(n, u, v, request.value("useTangents", false));
        w.Key("normal").Vec(f.normal).Key("u").Vec(f.tangentU).Key("v").Vec(f.tangentV);
    } else if (op == "ComputeMIPAngle") {
        if (!request.contains("angle"))
            return IllegalArgumentError(KELVO_HERE, "angle is missing.");
        KELVO_ASSIGN_OR_RETURN(double a, ReadNumber(request["angle"], "angle"));
        w.Key("angle").Number(m->ComputeMIPAngle(a));
    } else if (op == "ComputeAngle") {
        KELVO_ASSIGN_OR_RETURN(auto sample, ReadSample(request));
        w.Key("cosine").Number(m->ComputeAngle(sample.data()));
    } else {  // ComputeF_UVW
        Col3 v = m->ComputeF_UVW();
        w.Key("value").Vec(Vec3{v.r, v.g, v.b});
    }
    return w.End().Text();
}

Result<std::string> BsdfSession::DistributionOperation(const std::string& op, const json& request) {
    JsonWriter w;
    w.Object();
    if (op == "newDistribution") {
        KELVO_ASSIGN_OR_RETURN(std::string name, Text(request, "name"));
        KELVO_ASSIGN_OR_RETURN(Distribution d, FindDistribution(request));
        _distributions[name] = d;
        return w.Key("name").String(name).End().Text();
    }
    KELVO_ASSIGN_OR_RETURN(Distribution d, FindDistribution(request));
    if (op == "D") {
        KELVO_ASSIGN_OR_RETURN(Vec3 h, Vector(request, "h"));
        bool useTable = request.value("useTable", true);
        double density = 0.0;
        double v = d->D(h, useTable, density);
        w.Key("D").Number(v).Key("density").Number(density);
    } else if (op == "G") {
        KELVO_ASSIGN_OR_RETURN(Vec3 a, Vector(request, "first"));
        KELVO_ASSIGN_OR_RETURN(Vec3 b, Vector(request, "second"));
        KELVO_ASSIGN_OR_RETURN(Vec3 h, Vector(request, "h"));
        w.Key("G").Number(d->G(a, b, h));
    } else {  // Sample
        KELVO_ASSIGN_OR_RETURN(auto sample, ReadSample(request));
        double dv = 0.0, density = 0.0;
        Vec3 h = d->Sample(sample.data(), dv, density);
        w.Key("h").Vec(h).Key("D").Number(dv).Key("density").Number(density);
    }
    return w.End().Text();
}

Result<std::string> BsdfSession::Handle(const json& request) {
    if (!request.is_object())
        return IllegalArgumentError(KELVO_HERE, "A request must be an object.");
    KELVO_ASSIGN_OR_RETURN(std::string op, Text(request, "op"));
    static const char* const kModelOps[] = {
        "new",         "update",           "reset",           "ComputeBSDF",  "SampleF",
        "PdfIndirect", "ComputeBSDFFrame", "ComputeMIPAngle", "ComputeAngle", "ComputeF_UVW"};
    for (const char* m : kModelOps) {
        if (op != m) continue;
        if (op == "new" && request.contains("distribution"))
            return DistributionOperation("newDistribution", request);
        if (op == "update" && request.contains("name") &&
            _distributions.count(request.value("name", ""))) {
            KELVO_TRY(FindDistribution(request));
            return "{\"name\":" + JsonString(request.value("name", "")) + "}";
        }
        return ModelOperation(op, request);
    }
    if (op == "D" || op == "G" || op == "Sample") return DistributionOperation(op, request);
    if (op == "cache") {
        KELVO_ASSIGN_OR_RETURN(auto* c, Caches());
        int kind = request.value("kind", -1);
        float* table = c->GetCache(kind);
        if (!table)
            return IllegalArgumentError(KELVO_HERE, "Distribution kind @ has no table.", kind);
        int64_t index = request.value("index", int64_t(0)),
                count = request.value("count", int64_t(1));
        if (index < 0 || count < 0 || index + count > int64_t(kSamplerCacheFloats))
            return IllegalArgumentError(KELVO_HERE, "Entries @..@ are outside the table.", index,
                                        index + count - 1);
        JsonWriter w;
        w.Object().Key("values").Array();
        for (int64_t i = 0; i < count; ++i) w.Number(table[index + i]);
        return w.End().End().Text();
    }
    if (op == "models") {
        JsonWriter w;
        w.Object().Key("models").Array();
        for (const EntryRecord* e : RegistryMembers(kBsdfLegacyClassesRegistry))
            w.String(e->GetId().Text());
        w.End().Key("keys").Array();
        for (const auto& k : bsdfdata::kKeys) w.String(k.key.Text());
        return w.End().End().Text();
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
        if (auto r = context.LoadModules(); !r) {
            status = Fail(r.GetError());
            return;
        }
        BsdfSession session;
        if (!plot->parsed()) {
            RunJsonLines(std::cin, std::cout,
                         [&](const json& request) { return session.Handle(request); });
            return;
        }
        Result<void> done = [&]() -> Result<void> {
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
            KELVO_TRY(WritePicture(out, DrawLobe(*model, wo, options->size)));
            std::cout << "kelvo bsdf plot: wrote " << out << '\n';
            return OK();
        }();
        if (!done) status = Fail(done.GetError());
    });
}

}  // namespace kelvo::cli

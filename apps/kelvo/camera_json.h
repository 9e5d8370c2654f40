// The camera records as JSON: rays, hit points, data values and parameter dictionaries,
// written for answers and read back from requests (so that an answer's ray can be sent
// back as it is).
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "cli_common.h"
#include "kelvo/camera.h"
#include "kelvo/data.h"

namespace kelvo::cli {

void WriteRay(JsonWriter& w, const Ray& r);
void WriteHit(JsonWriter& w, const ShadingPoint& h);
void WriteData(JsonWriter& w, const Data& d);
void WriteParameters(JsonWriter& w, const StrongRef<DataDictionary>& p);

// A parameter value by its JSON form: an object is a matrix, an array of 2 or 3 numbers
// a pair or a triple, "inf"/"-inf"/"nan" and numbers a double.
Result<Data> ReadParameter(const nlohmann::json& v, const std::string& key);
Result<StrongRef<DataDictionary>> ReadParameters(const nlohmann::json& v);
// Members that are missing keep their defaults; null gives the default record.
Result<Ray> ReadRay(const nlohmann::json& v);
Result<ShadingPoint> ReadHit(const nlohmann::json& v);

}  // namespace kelvo::cli

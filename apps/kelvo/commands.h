// The commands of the tool, and the functions of theirs the demo reuses.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "context.h"
#include "kelvo/data.h"
#include "kelvo/result.h"
#include "kelvo/texture.h"

namespace kelvo::cli {

// Each subcommand adds itself and its options; its callback runs the command and leaves
// the exit status in `status`.
void AddModulesCommand(CLI::App& app, Context& context, int& status);
void AddConfigCommand(CLI::App& app, Context& context, int& status);
void AddDemoCommand(CLI::App& app, Context& context, int& status);
void AddImageCommand(CLI::App& app, Context& context, int& status);
void AddCameraCommand(CLI::App& app, Context& context, int& status);
void AddBsdfCommand(CLI::App& app, Context& context, int& status);
void AddSelfTestCommand(CLI::App& app, Context& context, int& status);
void AddIesCommand(CLI::App& app, Context& context, int& status);
void AddIntersectCommand(CLI::App& app, Context& context, int& status);
void AddTextureCommand(CLI::App& app, Context& context, int& status);
void AddPreviewCommand(CLI::App& app, Context& context, int& status);
// kelvo preview simulate, added to the preview command group.
void AddPreviewSimulateCommand(CLI::App& preview, Context& context, int& status);
// kelvo preview serve, the live material editor in the browser.
void AddPreviewServeCommand(CLI::App& preview, Context& context, int& status);
// kelvo preview batch, thumbnails of a material library.
void AddPreviewBatchCommand(CLI::App& preview, Context& context, int& status);

// kelvo modules --json, kelvo modules and kelvo config --json, as text.
std::string ModulesJson();
void PrintModules(std::ostream& out);
void PrintConfig(std::ostream& out, bool json);

// The rays of the given pixels ("x,y") of a camera class ("perspective", "parallel" or an
// id) at a camera-to-world matrix given as JSON, as kelvo camera prints them.
Result<std::string> CameraRaysJson(const std::string& cameraClass, const std::string& matrixJson,
                                   double fieldOfView, const std::vector<std::string>& pixels);

// Writes the preview of an IES file, opened through the image import, as a size x size
// picture (the format follows the output's suffix).
Result<void> WriteIesPreview(Context& context, const std::string& file, const std::string& output,
                             int64_t size);

// The mip chain of a texture side by side (level 0 first) above its rip grid, in the
// texture's storage format (kelvo texture sheet).
Result<StrongRef<ImageInterface>> TextureSheet(TextureInterface& texture);

}  // namespace kelvo::cli

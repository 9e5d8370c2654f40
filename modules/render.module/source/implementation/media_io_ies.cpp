// The IES image import: IES photometric files opened as pictures of their distribution.
#include "media_io_ies.h"

namespace kelvo::detail {

bool DetectIesContent(std::string_view firstBytes) {
    std::string_view head = firstBytes.substr(0, kIesDetectBytes);
    return head.find("IESN") != std::string_view::npos || head.find("TILT") != std::string_view::npos;
}

}  // namespace kelvo::detail

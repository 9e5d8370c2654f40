#include <gtest/gtest.h>

#include <string>

#include "implementation/media_io_ies.h"

namespace kelvo {
namespace {

TEST(IesDetectTest, ContentWithinTheFirst1024Bytes) {
    EXPECT_TRUE(detail::DetectIesContent("IESNA:LM-63-2002\n[MANUFAC] x\nTILT=NONE\n"));
    EXPECT_TRUE(detail::DetectIesContent("old file without a version line\nTILT=NONE\n"));
    EXPECT_TRUE(detail::DetectIesContent("IES:LM-63-2019\nTILT=NONE"));  // "TILT" admits it
    EXPECT_FALSE(detail::DetectIesContent("IES:LM-63-2019\n"));
    EXPECT_FALSE(detail::DetectIesContent(""));
    EXPECT_FALSE(detail::DetectIesContent(std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16)));
    EXPECT_FALSE(detail::DetectIesContent("tilt=none iesna"));  // the markers are upper case

    // "TILT" ending at byte 1024 counts; one byte later it does not.
    std::string padding(1020, ' ');
    EXPECT_TRUE(detail::DetectIesContent(padding + "TILT=NONE"));
    EXPECT_FALSE(detail::DetectIesContent(padding + " TILT=NONE"));
    EXPECT_FALSE(detail::DetectIesContent(std::string(1024, 'x') + "IESNA91"));
}

}  // namespace
}  // namespace kelvo

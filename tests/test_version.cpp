// The version macros of the exported header against the version the build
// declares for the project (and thus for the CMake and pkg-config packages).
#include <gtest/gtest.h>

#include "vardenlu.h"

TEST(HeaderVersion, MatchesTheProjectVersion) {
  EXPECT_EQ(VARDENLU_VERSION_MAJOR, VLU_PROJECT_VERSION_MAJOR);
  EXPECT_EQ(VARDENLU_VERSION_MINOR, VLU_PROJECT_VERSION_MINOR);
  EXPECT_EQ(VARDENLU_VERSION_PATCH, VLU_PROJECT_VERSION_PATCH);
  EXPECT_EQ(VARDENLU_VERSION, VLU_PROJECT_VERSION_MAJOR * 10000 + VLU_PROJECT_VERSION_MINOR * 100 +
                                  VLU_PROJECT_VERSION_PATCH);
}

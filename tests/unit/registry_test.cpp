#include "frame/registry.hpp"

#include <gtest/gtest.h>

#include "api/common.hpp"
#include "frame/errors.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

PortRef AddPort(s_CommPorts* list, const char* path, const char* serial) {
  PortRef port = PortsList_Add(list, nullptr, std::make_shared<SerialLine>(), path, serial, "",
                               "\r\n", 57600, 0.19);
  EXPECT_TRUE(port);
  return port;
}

}  // namespace

TEST(ErrorTexts, PerPortAndLibraryWide) {
  AddPort(&OpenedPorts, "/dev/a", "A1");
  AddPort(&OpenedPorts, "/dev/b", "B1");
  SetError(PortsList_GetByIndex(&OpenedPorts, 0).get(), "first port failed");
  SetError(nullptr, "library failed");
  char buffer[512];
  EXPECT_STREQ(ZeltoCom_GetError_Description(buffer), "library failed");
  EXPECT_STREQ(ZeltoCom_GetError_DescriptionByPort("/dev/a", buffer), "first port failed");
  EXPECT_STREQ(ZeltoCom_GetError_DescriptionBySN("a1", buffer), "first port failed");
  // Serial numbers match whole in any case, paths exactly.
  EXPECT_STREQ(ZeltoCom_GetError_DescriptionBySN("A", buffer), "library failed");
  EXPECT_STREQ(ZeltoCom_GetError_DescriptionByPort("/dev/A", buffer), "library failed");
  EXPECT_STREQ(ZeltoCom_GetError_DescriptionByPort("/dev/b", buffer), "");
  EXPECT_STREQ(ZeltoCom_GetError_DescriptionByPort("/dev/none", buffer), "library failed");
  EXPECT_STREQ(ZeltoCom_GetError_DescriptionBySN(nullptr, buffer), "library failed");

  // Texts are cut to the 511 characters that the buffers hold.
  SetError(PortsList_GetByIndex(&OpenedPorts, 0).get(), std::string(600, 'e'));
  EXPECT_EQ(std::string(ZeltoCom_GetError_Description(buffer)).size(), 511u);
  EXPECT_EQ(std::string(ZeltoCom_GetError_DescriptionByPort("/dev/a", buffer)).size(), 511u);
  while (PortRef first = PortsList_GetByIndex(&OpenedPorts, 0))
    PortsList_Del(&OpenedPorts, first.get());
}

// Each case runs in a process of its own, so these are the values a host
// gets before it sets any: the header promises them.
TEST(LibraryDefaults, PlainSendsWait2500MsAndAnswersAreNotCut) {
  EXPECT_EQ(LA_ResponseTimeout.load(), 2500);
  EXPECT_EQ(ResponseBufferSize.load(), 0);
}

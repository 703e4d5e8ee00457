#include "frame/registry.hpp"

#include <gtest/gtest.h>

#include "frame/errors.hpp"
#include "zeltocom.h"

using namespace zeltocom;

namespace {

s_CommPort* AddPort(s_CommPorts* list, const char* path, const char* serial,
                    const char* firmware = "", s_CommPort* parent = nullptr) {
  EXPECT_EQ(PortsList_Add(list, parent, 7, path, serial, firmware, "\r\n", 57600, 0.19), 1);
  return list->last;
}

std::vector<std::string> Paths(s_CommPorts* list) {
  std::vector<std::string> paths;
  for (s_CommPort* p : PortsList_All(list)) paths.emplace_back(p->devicePath.view());
  // Walk backwards too: both directions must agree after any relinking.
  std::vector<std::string> backwards;
  for (s_CommPort* p = list->last; p != nullptr; p = p->prev) {
    backwards.insert(backwards.begin(), std::string(p->devicePath.view()));
  }
  EXPECT_EQ(paths, backwards);
  EXPECT_EQ(static_cast<int>(paths.size()), list->count);
  return paths;
}

}  // namespace

TEST(Registry, AddAndRemoveKeepTheLinksStraight) {
  s_CommPorts list;
  s_CommPort* a = AddPort(&list, "/dev/a", "A1");
  EXPECT_EQ(list.first, a);
  EXPECT_EQ(list.last, a);
  s_CommPort* b = AddPort(&list, "/dev/b", "B1");
  s_CommPort* c = AddPort(&list, "/dev/c", "C1");
  EXPECT_EQ(Paths(&list), (std::vector<std::string>{"/dev/a", "/dev/b", "/dev/c"}));

  PortsList_Del(&list, b);
  EXPECT_EQ(Paths(&list), (std::vector<std::string>{"/dev/a", "/dev/c"}));
  PortsList_Del(&list, a);
  EXPECT_EQ(list.first, c);
  PortsList_Del(&list, c);
  EXPECT_EQ(list.first, nullptr);
  EXPECT_EQ(list.last, nullptr);
  EXPECT_EQ(list.count, 0);
}

TEST(Registry, FirmwareNumberFollowsTheText) {
  s_CommPorts list;
  EXPECT_EQ(AddPort(&list, "/a", "1", "1B2")->firmwareNumber, 999);
  EXPECT_EQ(AddPort(&list, "/b", "2", "")->firmwareNumber, -1);
  EXPECT_EQ(AddPort(&list, "/c", "3", "35")->firmwareNumber, 35);
  EXPECT_EQ(AddPort(&list, "/d", "4", "F2.13")->firmwareNumber, 213);
}

TEST(Registry, LookUps) {
  s_CommPorts list;
  AddPort(&list, "/dev/a", "AB12");
  AddPort(&list, "/dev/b", "CD34");
  EXPECT_EQ(PortsList_GetBySerialNumber(&list, "ab12")->devicePath.view(), "/dev/a");
  EXPECT_EQ(PortsList_GetBySerialNumber(&list, "AB1"), nullptr);
  EXPECT_EQ(PortsList_GetByIndex(&list, 1)->devicePath.view(), "/dev/b");
  EXPECT_EQ(PortsList_GetByIndex(&list, 2), nullptr);
  s_CommPorts empty;
  EXPECT_EQ(PortsList_GetByIndex(&empty, 0), nullptr);

  // Path and descriptor look-ups search the opened ports only.
  EXPECT_EQ(PortsList_GetByDevPath("/dev/a"), nullptr);
  AddPort(&OpenedPorts, "/dev/Ttyx", "EF56");
  EXPECT_NE(PortsList_GetByDevPath("/dev/Ttyx"), nullptr);
  EXPECT_EQ(PortsList_GetByDevPath("/dev/ttyx"), nullptr);
  int fd = 7;
  EXPECT_EQ(PortsList_GetByHandler(fd), OpenedPorts.first);
  PortsList_DelByDevPath(&OpenedPorts, "/dev/Ttyx");
  EXPECT_EQ(OpenedPorts.count, 0);
}

TEST(Registry, DeletingAMasterTakesItsChain) {
  s_CommPorts list;
  s_CommPort* master = AddPort(&list, "/dev/a", "M1");
  AddPort(master->chain.get(), "/dev/a", "C1", "", master);
  AddPort(master->chain.get(), "/dev/a", "C2", "", master);
  EXPECT_EQ(master->chain->count, 2);
  PortsList_DelBySerialNumber(&list, "C1");  // not in this list: nothing happens
  EXPECT_EQ(list.count, 1);
  PortsList_DelByIndex(master->chain.get(), 0);
  EXPECT_EQ(master->chain->first->serialNumber.view(), "C2");
  PortsList_DelBySerialNumber(&list, "m1");
  EXPECT_EQ(list.count, 0);
}

TEST(Registry, SwapExchangesPositions) {
  s_CommPorts list;
  s_CommPort* a = AddPort(&list, "a", "1");
  s_CommPort* b = AddPort(&list, "b", "2");
  s_CommPort* c = AddPort(&list, "c", "3");
  s_CommPort* d = AddPort(&list, "d", "4");
  PortsList_Swap(&list, a, b);  // neighbours, at the front
  EXPECT_EQ(Paths(&list), (std::vector<std::string>{"b", "a", "c", "d"}));
  PortsList_Swap(&list, d, c);  // neighbours given in reverse, at the back
  EXPECT_EQ(Paths(&list), (std::vector<std::string>{"b", "a", "d", "c"}));
  PortsList_Swap(&list, b, c);  // first and last
  EXPECT_EQ(Paths(&list), (std::vector<std::string>{"c", "a", "d", "b"}));
  PortsList_Swap(&list, a, nullptr);
  PortsList_Swap(&list, a, a);
  EXPECT_EQ(Paths(&list), (std::vector<std::string>{"c", "a", "d", "b"}));
}

TEST(Registry, IdTableSkipsChainedRowsByPath) {
  std::vector<s_IDPort> table(2);
  table[0].devicePath.assign("/dev/a");
  table[0].deviceID.assign("CHAINED");
  table[0].chained = true;
  table[1].devicePath.assign("/dev/a");
  table[1].deviceID.assign("MASTER");
  EXPECT_EQ(IDtoPortList_GetByDevPath(table, "/dev/a"), &table[1]);
  EXPECT_EQ(IDtoPortList_GetPortByDeviceID(table, "CHAINED"), &table[0]);
  EXPECT_EQ(IDtoPortList_GetPortByDeviceID(table, "chained"), nullptr);
}

TEST(ErrorTexts, PerPortAndLibraryWide) {
  AddPort(&OpenedPorts, "/dev/a", "A1");
  AddPort(&OpenedPorts, "/dev/b", "B1");
  SetError(OpenedPorts.first, "first port failed");
  SetError(nullptr, "library failed");
  char buffer[512];
  EXPECT_STREQ(ZeltoCom_GetError_Description(buffer), "library failed");
  EXPECT_STREQ(ZeltoCom_GetError_DescriptionByPort("/dev/a", buffer), "first port failed");
  EXPECT_STREQ(ZeltoCom_GetError_DescriptionBySN("a1", buffer), "first port failed");
  EXPECT_STREQ(ZeltoCom_GetError_DescriptionByPort("/dev/b", buffer), "");
  EXPECT_STREQ(ZeltoCom_GetError_DescriptionByPort("/dev/none", buffer), "library failed");
  EXPECT_STREQ(ZeltoCom_GetError_DescriptionBySN(nullptr, buffer), "library failed");

  // Texts are cut to the 511 characters that the buffers hold.
  SetError(OpenedPorts.first, std::string(600, 'e'));
  EXPECT_EQ(std::string(ZeltoCom_GetError_Description(buffer)).size(), 511u);
  EXPECT_EQ(std::string(ZeltoCom_GetError_DescriptionByPort("/dev/a", buffer)).size(), 511u);
  while (OpenedPorts.first != nullptr) PortsList_Del(&OpenedPorts, OpenedPorts.first);
}

// One device: what it reads from a disk's description, and what its operations ask of the host.

#include "devices/removable_device.h"

#include <functional>
#include <stdexcept>

#include "tests/devices/devices_test.h"

namespace tests::devices {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::string_view kReloaded = ZQRemovableDeviceCenterDataReloadedNotification;
constexpr std::string_view kBegan = ZQRemovableDeviceFormatBeganNotification;
constexpr std::string_view kComplete = ZQRemovableDeviceFormatCompleteNotification;
constexpr const char* kDiskUtility = "/usr/sbin/diskutil";

class DeviceDescription : public DevicesTest {
 protected:
  // The path of the icon, or "" without one.
  static std::string iconPath(const Device& device) {
    const auto icon = std::dynamic_pointer_cast<const platform::fake::Icon>(device->icon());
    return icon ? icon->path : "";
  }
};

// A device with the disk it stands for; reloads are noted.
class DeviceOperations : public DevicesTest {
 protected:
  DeviceOperations() { notePosts(kReloaded); }

  Device plug() { return deviceOf(disk); }
  Device unmounted() {
    world.disks.unmount(disk, [](const auto&) {});
    world.runMainQueue();
    return deviceOf(disk);
  }
  void refuse(ports::DAReturn status) { world.disks.refuseNext({status, "No."}); }
  // What a completed operation writes to standard output.
  static std::string printed(const std::function<void()>& act) {
    ::testing::internal::CaptureStdout();
    act();
    return ::testing::internal::GetCapturedStdout();
  }

  ports::DiskRef disk = world.disks.plugUSB("STICK");
};

using DeviceNames = DevicesTest;
using DeviceEquality = DevicesTest;
using DeviceClaim = DeviceOperations;
using DeviceEject = DeviceOperations;
using DeviceMount = DeviceOperations;
using DeviceUnmount = DeviceOperations;
using DeviceRename = DeviceOperations;
using DeviceFromPath = DeviceOperations;

class DeviceErase : public DevicesTest {
 protected:
  DeviceErase() {
    notePosts(kBegan);
    notePosts(kComplete);
    notePosts(kReloaded);
    world.tools.whenToolRuns(kDiskUtility, [this](const auto&) {
      events.push_back("diskutil");
      return std::string("Erase failed\n");
    });
  }
  std::vector<std::string> argumentsFor(std::int32_t fileSystem, const Entries& description) {
    describedAs(description)->formatDiscUsingFileSystem(static_cast<ZQRemovableDeviceFileSystem>(fileSystem));
    return world.tools.runs().back().arguments;
  }
  Entries stickAt(const char* BSDName) {
    return stickWith(ports::kDADiskDescriptionMediaBSDNameKey, BSDName);
  }
};

TEST_F(DeviceNames, ofNotificationsAndOfTheErrorDomainReadAsThemselves) {
  EXPECT_EQ(ZQRemovableDeviceCenterDeviceMountedNotification,
            "ZQRemovableDeviceCenterDeviceMountedNotification");
  EXPECT_EQ(ZQRemovableDeviceCenterDeviceUnmountedNotification,
            "ZQRemovableDeviceCenterDeviceUnmountedNotification");
  EXPECT_EQ(ZQRemovableDeviceCenterDataReloadedNotification,
            "ZQRemovableDeviceCenterDataReloadedNotification");
  EXPECT_EQ(ZQRemovableDeviceFormatCompleteNotification, "ZQRemovableDeviceFormatCompleteNotification");
  EXPECT_EQ(ZQRemovableDeviceFormatBeganNotification, "ZQRemovableDeviceFormatBeganNotification");
  EXPECT_EQ(ZQRemovableDeviceCenterErrorDomain, "ZQRemovableDeviceCenterErrorDomain");
}

TEST_F(DeviceNames, ofCodesHaveTheirNumbers) {
  EXPECT_EQ(ZQRemovableDeviceProtocolUnknown, 0);
  EXPECT_EQ(ZQRemovableDeviceProtocolUSB, 1);
  EXPECT_EQ(ZQRemovableDeviceProtocolSATA, 2);
  EXPECT_EQ(ZQRemovableDeviceProtocolATA, 3);
  EXPECT_EQ(ZQRemovableDeviceProtocolVirtualInterface, 4);
  EXPECT_EQ(ZQRemovableDeviceTypeInternal, 1);
  EXPECT_EQ(ZQRemovableDeviceTypeExternal, 2);
  EXPECT_EQ(ZQRemovableDeviceTypeVirtual, 3);
  EXPECT_EQ(ZQRemovableDeviceFileSystemFAT16, 1);
  EXPECT_EQ(ZQRemovableDeviceFileSystemFAT32, 2);
  EXPECT_EQ(ZQRemovableDeviceFileSystemHFSPlus, 3);
  EXPECT_EQ(ZQRemovableDeviceFileSystemJournaledHFSPlus, 4);
}

TEST_F(DeviceDescription, ofKindAutofsIsDeclined) {
  EXPECT_EQ(describedAs(stickWith(ports::kDADiskDescriptionVolumeKindKey, "autofs")), nullptr);
  EXPECT_NE(describedAs(stickWith(ports::kDADiskDescriptionVolumeKindKey, "AutoFS")), nullptr);
  EXPECT_NE(describedAs(stickWithout(ports::kDADiskDescriptionVolumeKindKey)), nullptr);
}

TEST_F(DeviceDescription, withoutAVolumeNameIsDeclined) {
  EXPECT_EQ(describedAs(stickWith(ports::kDADiskDescriptionVolumeNameKey, "")), nullptr);
  EXPECT_EQ(describedAs(stickWithout(ports::kDADiskDescriptionVolumeNameKey)), nullptr);
  EXPECT_EQ(describedAs({}), nullptr);
}

TEST_F(DeviceDescription, withANameAloneIsEnough) {
  const auto device = describedAs(entry(ports::kDADiskDescriptionVolumeNameKey, "STICK"));
  ASSERT_NE(device, nullptr);
  EXPECT_EQ(device->name(), "STICK");
  EXPECT_EQ(device->vendor(), std::nullopt);
  EXPECT_EQ(device->UDID(), std::nullopt);
  EXPECT_EQ(device->BSDName(), std::nullopt);
  EXPECT_EQ(device->protocol(), ZQRemovableDeviceProtocolUnknown);
  EXPECT_EQ(device->type(), ZQRemovableDeviceTypeExternal);
  EXPECT_EQ(device->size(), 0);
  EXPECT_EQ(device->connectionDate(), base::Date{0});
  EXPECT_FALSE(device->writable());
  EXPECT_FALSE(device->mountable());
  EXPECT_FALSE(device->ejectable());
  EXPECT_FALSE(device->mounted());
  EXPECT_FALSE(device->claimed());
  EXPECT_EQ(device->icon(), nullptr);
}

TEST_F(DeviceDescription, isDeclinedNeitherForProtocolNorForBeingInternalNorForBeingWhole) {
  EXPECT_NE(describedAs(stickWith(ports::kDADiskDescriptionDeviceProtocolKey, "SATA")), nullptr);
  EXPECT_NE(describedAs(stickWith(ports::kDADiskDescriptionDeviceInternalKey, true)), nullptr);
  EXPECT_NE(describedAs(stickWith(ports::kDADiskDescriptionMediaWholeKey, true)), nullptr);
}

TEST_F(DeviceDescription, isReadIntoTheFields) {
  const auto device = describedAs(world.disks.usbPartition("STICK"));
  EXPECT_EQ(device->name(), "STICK");
  EXPECT_EQ(device->vendor(), "Example");
  EXPECT_EQ(device->UDID(), "5A17C0DE-0000-4000-8000-000000000001");
  EXPECT_EQ(device->BSDName(), "disk2s1");
  EXPECT_EQ(device->protocol(), ZQRemovableDeviceProtocolUSB);
  EXPECT_EQ(device->type(), ZQRemovableDeviceTypeExternal);
  EXPECT_EQ(device->size(), 2e9F);
  EXPECT_TRUE(device->writable());
  EXPECT_TRUE(device->mountable());
  EXPECT_TRUE(device->ejectable());
}

TEST_F(DeviceDescription, flagsAreReadEachFromItsOwnEntry) {
  const auto readOnly = describedAs(stickWith(ports::kDADiskDescriptionMediaWritableKey, false));
  EXPECT_FALSE(readOnly->writable());
  EXPECT_TRUE(readOnly->mountable() && readOnly->ejectable());
  const auto unmountable = describedAs(stickWith(ports::kDADiskDescriptionVolumeMountableKey, false));
  EXPECT_FALSE(unmountable->mountable());
  EXPECT_TRUE(unmountable->writable() && unmountable->ejectable());
  const auto fixed = describedAs(stickWith(ports::kDADiskDescriptionMediaEjectableKey, false));
  EXPECT_FALSE(fixed->ejectable());
  EXPECT_TRUE(fixed->writable() && fixed->mountable());
}

TEST_F(DeviceDescription, protocolFollowsTheExactText) {
  const std::vector<std::pair<const char*, ZQRemovableDeviceProtocol>> protocols = {
      {"USB", ZQRemovableDeviceProtocolUSB},
      {"SATA", ZQRemovableDeviceProtocolSATA},
      {"ATA", ZQRemovableDeviceProtocolATA},
      {"Virtual Interface", ZQRemovableDeviceProtocolVirtualInterface},
      {"FireWire", ZQRemovableDeviceProtocolUnknown},
      {"Usb", ZQRemovableDeviceProtocolUnknown},
      {"sata", ZQRemovableDeviceProtocolUnknown},
      {"Ata", ZQRemovableDeviceProtocolUnknown},
      {"virtual interface", ZQRemovableDeviceProtocolUnknown},
      {"USB ", ZQRemovableDeviceProtocolUnknown},
      {"", ZQRemovableDeviceProtocolUnknown},
  };
  for (const auto& [text, protocol] : protocols) {
    EXPECT_EQ(describedAs(stickWith(ports::kDADiskDescriptionDeviceProtocolKey, text))->protocol(), protocol)
        << text;
  }
  EXPECT_EQ(describedAs(stickWithout(ports::kDADiskDescriptionDeviceProtocolKey))->protocol(),
            ZQRemovableDeviceProtocolUnknown);
}

TEST_F(DeviceDescription, ofAProtocolInOtherLetterCaseIsUnknownButExternal) {
  const auto device = describedAs(stickWith(ports::kDADiskDescriptionDeviceProtocolKey, "usb"));
  EXPECT_EQ(device->protocol(), ZQRemovableDeviceProtocolUnknown);
  EXPECT_EQ(device->type(), ZQRemovableDeviceTypeExternal);
}

TEST_F(DeviceDescription, typeIsExternalForAllProtocolsButTheVirtualOne) {
  for (const char* protocol : {"USB", "SATA", "ATA", "FireWire"}) {
    EXPECT_EQ(describedAs(stickWith(ports::kDADiskDescriptionDeviceProtocolKey, protocol))->type(),
              ZQRemovableDeviceTypeExternal);
  }
  EXPECT_EQ(describedAs(stickWith(ports::kDADiskDescriptionDeviceProtocolKey, "Virtual Interface"))->type(),
            ZQRemovableDeviceTypeVirtual);
}

TEST_F(DeviceDescription, typeOfAnInternalVirtualInterfaceIsInternal) {
  auto description = stickWith(ports::kDADiskDescriptionDeviceProtocolKey, "Virtual Interface");
  description.insert_or_assign(std::string(ports::kDADiskDescriptionDeviceInternalKey), true);
  EXPECT_EQ(describedAs(description)->type(), ZQRemovableDeviceTypeInternal);
  EXPECT_EQ(describedAs(stickWith(ports::kDADiskDescriptionDeviceInternalKey, true))->type(),
            ZQRemovableDeviceTypeInternal);
}

TEST_F(DeviceDescription, connectionDateComesInStepsOf64Seconds) {
  const auto dateOf = [&](base::PropertyList time) {
    return describedAs(stickWith(ports::kDAAppearanceTimeKey, std::move(time)))->connectionDate();
  };
  EXPECT_EQ(dateOf(800000037.0), base::Date{800000064});
  EXPECT_EQ(dateOf(std::int64_t{800000037}), base::Date{800000064});
  EXPECT_EQ(dateOf(800000031.0), base::Date{800000000});
  EXPECT_EQ(dateOf(800000064.0), base::Date{800000064});
}

TEST_F(DeviceDescription, connectionDateWithoutAnAppearanceTimeIsTheReferenceDate) {
  EXPECT_EQ(describedAs(stickWithout(ports::kDAAppearanceTimeKey))->connectionDate(), base::Date{0});
}

TEST_F(DeviceDescription, sizeIsRoundedToSinglePrecision) {
  const auto sizeOf = [&](std::int64_t bytes) {
    return static_cast<double>(describedAs(stickWith(ports::kDADiskDescriptionMediaSizeKey, bytes))->size());
  };
  EXPECT_EQ(sizeOf(16777215), 16777215);
  EXPECT_EQ(sizeOf(16777217), 16777216);
  EXPECT_EQ(sizeOf(31'000'000'001), 31'000'000'512);
}

TEST_F(DeviceDescription, mountedSaysThatSomethingStandsUnderTheNameInVolumes) {
  EXPECT_FALSE(describedAs(world.disks.usbPartition("STICK"))->mounted());
  world.files.write("/Volumes/STICK", "a plain file");
  EXPECT_TRUE(describedAs(world.disks.usbPartition("STICK"))->mounted());
  EXPECT_FALSE(describedAs(world.disks.usbPartition("OTHER"))->mounted());
}

TEST_F(DeviceDescription, mountedIsLookedForUnderTheNameAndNotAtTheRealMountPoint) {
  const auto first = world.disks.plugUSB("UNTITLED");
  const auto second = world.disks.plugUSB("UNTITLED");
  world.disks.pull(first);
  ASSERT_EQ(world.disks.volumePath(second), "/Volumes/UNTITLED 1");
  EXPECT_FALSE(deviceOf(second)->mounted());
}

TEST_F(DeviceDescription, isReadOnceAndNeverAgain) {
  const auto disk = world.disks.plugUSB("STICK");
  const auto device = deviceOf(disk);
  world.disks.changeDescription(disk, entry(ports::kDADiskDescriptionVolumeNameKey, "OTHER"));
  world.disks.pull(disk);
  EXPECT_EQ(device->name(), "STICK");
  EXPECT_TRUE(device->mounted());
}

TEST_F(DeviceDescription, withAnIconGivesTheIconOfTheVolume) {
  world.files.addVolume("STICK");
  EXPECT_EQ(iconPath(describedAs(world.disks.usbPartition("STICK"))), "/Volumes/STICK");
  EXPECT_EQ(iconPath(describedAs(stickWith(ports::kDADiskDescriptionMediaIconKey, Entries{}))),
            "/Volumes/STICK");
}

TEST_F(DeviceDescription, withoutAnIconGivesNone) {
  world.files.addVolume("STICK");
  EXPECT_EQ(describedAs(stickWithout(ports::kDADiskDescriptionMediaIconKey))->icon(), nullptr);
}

TEST_F(DeviceDescription, valuesOfTheWrongKindAreReadAsAbsent) {
  EXPECT_EQ(describedAs(stickWith(ports::kDADiskDescriptionVolumeNameKey, 7)), nullptr);
  EXPECT_NE(describedAs(stickWith(ports::kDADiskDescriptionVolumeKindKey, 7)), nullptr);
  EXPECT_EQ(describedAs(stickWith(ports::kDADiskDescriptionMediaBSDNameKey, 7))->BSDName(), std::nullopt);
  EXPECT_EQ(describedAs(stickWith(ports::kDADiskDescriptionDeviceVendorKey, 7))->vendor(), std::nullopt);
  EXPECT_EQ(describedAs(stickWith(ports::kDADiskDescriptionMediaUUIDKey, 7))->UDID(), std::nullopt);
  EXPECT_EQ(describedAs(stickWith(ports::kDADiskDescriptionDeviceProtocolKey, 1))->protocol(),
            ZQRemovableDeviceProtocolUnknown);
  EXPECT_EQ(describedAs(stickWith(ports::kDADiskDescriptionMediaSizeKey, "2000"))->size(), 0);
  EXPECT_EQ(describedAs(stickWith(ports::kDAAppearanceTimeKey, "800000037"))->connectionDate(),
            base::Date{0});
  EXPECT_EQ(describedAs(stickWith(ports::kDADiskDescriptionDeviceInternalKey, "true"))->type(),
            ZQRemovableDeviceTypeExternal);
  EXPECT_FALSE(describedAs(stickWith(ports::kDADiskDescriptionMediaWritableKey, "true"))->writable());
  EXPECT_FALSE(describedAs(stickWith(ports::kDADiskDescriptionVolumeMountableKey, "true"))->mountable());
  EXPECT_FALSE(describedAs(stickWith(ports::kDADiskDescriptionMediaEjectableKey, "true"))->ejectable());
}

TEST_F(DeviceDescription, fillsNeitherPartitionsNorAnError) {
  const auto device = describedAs(world.disks.usbPartition("STICK"));
  EXPECT_THAT(device->partitions(), IsEmpty());
  EXPECT_EQ(device->error(), std::nullopt);
}

TEST_F(DeviceEquality, isOfNameAndTypeWhateverTheIdentity) {
  const auto first = describedAs(world.disks.usbPartition("UNTITLED"));
  const auto second = describedAs(world.disks.usbPartition("UNTITLED"));
  ASSERT_NE(first->UDID(), second->UDID());
  EXPECT_TRUE(first->isEqual(*second));
  const auto other = describedAs(stickWith(ports::kDADiskDescriptionDeviceProtocolKey, "SATA"));
  EXPECT_TRUE(other->isEqual(*describedAs(world.disks.usbPartition("STICK"))));
}

TEST_F(DeviceEquality, isNotOfDevicesWithOtherNames) {
  const auto stick = describedAs(world.disks.usbPartition("STICK"));
  EXPECT_FALSE(stick->isEqual(*describedAs(world.disks.usbPartition("OTHER"))));
  EXPECT_FALSE(stick->isEqual(*describedAs(world.disks.usbPartition("stick"))));
}

TEST_F(DeviceEquality, isNotOfDevicesOfOtherTypes) {
  const auto stick = describedAs(world.disks.usbPartition("STICK"));
  EXPECT_FALSE(stick->isEqual(*describedAs(stickWith(ports::kDADiskDescriptionDeviceInternalKey, true))));
  EXPECT_FALSE(stick->isEqual(
      *describedAs(stickWith(ports::kDADiskDescriptionDeviceProtocolKey, "Virtual Interface"))));
}

TEST_F(DeviceClaim, isSetAtOnceAndReachesTheDisk) {
  const auto device = plug();
  device->claim();
  EXPECT_TRUE(device->claimed());
  EXPECT_EQ(world.disks.claims(disk), 1);
  EXPECT_THAT(events, ElementsAre("claim"));
}

TEST_F(DeviceClaim, isGivenUpByUnclaim) {
  const auto device = plug();
  device->claim();
  device->unclaim();
  EXPECT_FALSE(device->claimed());
  EXPECT_EQ(world.disks.claims(disk), 0);
  EXPECT_THAT(events, ElementsAre("claim", "unclaim"));
}

TEST_F(DeviceClaim, staysWithTheDiskWhenTheDeviceIsDestroyed) {
  auto device = plug();
  device->claim();
  device.reset();
  EXPECT_EQ(world.disks.claims(disk), 1);
}

TEST_F(DeviceEject, ofAMountedVolumeOnlyUnmountsIt) {
  plug()->eject();
  world.runMainQueue();
  EXPECT_THAT(events, ElementsAre("unmount", kReloaded));
  EXPECT_FALSE(world.disks.isMounted(disk));
  EXPECT_TRUE(world.disks.isPresent(disk));
  EXPECT_FALSE(world.disks.isEjected(disk));
}

TEST_F(DeviceEject, ofAMountedClaimedVolumeGivesUpTheClaim) {
  const auto device = plug();
  device->claim();
  device->eject();
  EXPECT_FALSE(device->claimed());
  EXPECT_THAT(events, ElementsAre("claim", "unclaim", "unmount"));
}

TEST_F(DeviceEject, ofAnUnmountedVolumeEjectsItsDisk) {
  unmounted()->eject();
  EXPECT_THAT(events, ElementsAre("eject"));
  world.runMainQueue();
  EXPECT_THAT(events, ElementsAre("eject", kReloaded));
  EXPECT_FALSE(objects.back().has_value());
  EXPECT_TRUE(world.disks.isEjected(disk));
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(DeviceEject, ofAnUnmountedVolumeKeepsItsClaim) {
  const auto device = unmounted();
  device->claim();
  device->eject();
  EXPECT_TRUE(device->claimed());
  EXPECT_EQ(world.disks.claims(disk), 1);
}

TEST_F(DeviceEject, thatIsRefusedLogsTheNameOfTheStatus) {
  const std::vector<std::pair<ports::DAReturn, std::string>> names = {
      {0xF8DA0001, "kDAReturnError"},         {0xF8DA0002, "kDAReturnBusy"},
      {0xF8DA0003, "kDAReturnBadArgument"},   {0xF8DA0004, "kDAReturnExclusiveAccess"},
      {0xF8DA0005, "kDAReturnNoResources"},   {0xF8DA0006, "kDAReturnNotFound"},
      {0xF8DA0007, "kDAReturnNotMounted"},    {0xF8DA0008, "kDAReturnNotPermitted"},
      {0xF8DA0009, "kDAReturnNotPrivileged"}, {0xF8DA000A, "kDAReturnNotReady"},
      {0xF8DA000B, "kDAReturnNotWritable"},   {0xF8DA000C, "kDAReturnUnsupported"},
  };
  const auto device = unmounted();
  std::vector<std::string> expected;
  const std::string output = printed([&] {
    for (const auto& [status, name] : names) {
      refuse(status);
      device->eject();
      world.runMainQueue();
      expected.push_back(name);
      EXPECT_EQ(world.log.lines(), expected);
    }
  });
  EXPECT_EQ(output, "");
  EXPECT_EQ(objects.size(), names.size());
}

TEST_F(DeviceEject, thatIsRefusedForAnyOtherReasonLogsNothing) {
  const auto device = unmounted();
  for (const ports::DAReturn status : {0x0U, 0x1U, 0xF8DA0000U, 0xF8DA000DU, 0xFFFFFFFFU}) {
    refuse(status);
    device->eject();
    world.runMainQueue();
  }
  EXPECT_THAT(world.log.lines(), IsEmpty());
  EXPECT_EQ(objects.size(), 5);
}

TEST_F(DeviceEject, postsTheReloadBeforeItLogs) {
  const auto device = unmounted();
  std::size_t linesAtReload = 1;
  world.notifications.addObserver(
      kReloaded, [](const auto& deliver) { deliver(); },
      [&](const auto&) { linesAtReload = world.log.lines().size(); });
  refuse(ports::kDAReturnBusy);
  device->eject();
  world.runMainQueue();
  EXPECT_EQ(linesAtReload, 0);
  EXPECT_THAT(world.log.lines(), ElementsAre("kDAReturnBusy"));
}

TEST_F(DeviceUnmount, thatSucceedsLogsNothingButPostsTheReload) {
  const auto device = plug();
  const std::string output = printed([&] {
    device->unmount();
    EXPECT_THAT(events, ElementsAre("unmount"));
    world.runMainQueue();
  });
  EXPECT_THAT(events, ElementsAre("unmount", kReloaded));
  EXPECT_FALSE(objects.back().has_value());
  EXPECT_FALSE(world.disks.isMounted(disk));
  EXPECT_THAT(world.log.lines(), IsEmpty());
  EXPECT_EQ(output, "");
}

TEST_F(DeviceUnmount, givesUpTheClaimFirst) {
  const auto device = plug();
  device->claim();
  device->unmount();
  EXPECT_FALSE(device->claimed());
  EXPECT_EQ(world.disks.claims(disk), 0);
  EXPECT_THAT(events, ElementsAre("claim", "unclaim", "unmount"));
}

TEST_F(DeviceUnmount, withoutAClaimOfItsOwnUnclaimsNothing) {
  plug()->claim();
  plug()->unmount();
  EXPECT_EQ(world.disks.claims(disk), 1);
  EXPECT_THAT(events, ElementsAre("claim", "unmount"));
}

TEST_F(DeviceUnmount, withADissenterOfSuccessLogsEjectOK) {
  refuse(ports::kDAReturnSuccess);
  plug()->unmount();
  world.runMainQueue();
  EXPECT_THAT(world.log.lines(), ElementsAre("Eject OK"));
  EXPECT_THAT(events, ElementsAre("unmount", kReloaded));
}

TEST_F(DeviceUnmount, thatIsRefusedAsBusyPrintsItAndLogsNothing) {
  refuse(ports::kDAReturnBusy);
  const std::string output = printed([&] {
    plug()->unmount();
    world.runMainQueue();
  });
  EXPECT_EQ(output, "kDAReturnBusy\n");
  EXPECT_THAT(world.log.lines(), IsEmpty());
  EXPECT_THAT(events, ElementsAre("unmount", kReloaded));
}

TEST_F(DeviceUnmount, thatIsRefusedForAnyOtherReasonSaysNothingButPostsTheReload) {
  const std::string output = printed([&] {
    for (const auto status :
         {ports::kDAReturnError, ports::kDAReturnNotPermitted, ports::kDAReturnUnsupported}) {
      refuse(status);
      plug()->unmount();
      world.runMainQueue();
    }
  });
  EXPECT_EQ(output, "");
  EXPECT_THAT(world.log.lines(), IsEmpty());
  EXPECT_EQ(objects.size(), 3);
}

TEST_F(DeviceMount, mountsTheVolumeAndPostsTheReload) {
  unmounted()->mount();
  EXPECT_THAT(events, ElementsAre("mount"));
  world.runMainQueue();
  EXPECT_EQ(world.disks.volumePath(disk), "/Volumes/STICK");
  EXPECT_THAT(events, ElementsAre("mount", kReloaded));
  EXPECT_FALSE(objects.back().has_value());
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(DeviceMount, withADissenterOfSuccessLogsEjectOKToo) {
  const auto device = unmounted();
  refuse(ports::kDAReturnSuccess);
  device->mount();
  world.runMainQueue();
  EXPECT_THAT(world.log.lines(), ElementsAre("Eject OK"));
  EXPECT_THAT(events, ElementsAre("mount", kReloaded));
}

TEST_F(DeviceMount, thatIsRefusedAsBusyPrintsItAndLogsNothing) {
  const auto device = unmounted();
  refuse(ports::kDAReturnBusy);
  const std::string output = printed([&] {
    device->mount();
    world.runMainQueue();
  });
  EXPECT_EQ(output, "kDAReturnBusy\n");
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(DeviceMount, thatIsRefusedForAnyOtherReasonSaysNothingButPostsTheReload) {
  const auto device = unmounted();
  refuse(ports::kDAReturnNotPermitted);
  const std::string output = printed([&] {
    device->mount();
    world.runMainQueue();
  });
  EXPECT_EQ(output, "");
  EXPECT_THAT(world.log.lines(), IsEmpty());
  EXPECT_THAT(events, ElementsAre("mount", kReloaded));
}

TEST_F(DeviceOperations, completeAfterTheDeviceIsGone) {
  unmounted()->mount();
  world.runMainQueue();
  EXPECT_THAT(events, ElementsAre("mount", kReloaded));
  EXPECT_TRUE(world.disks.isMounted(disk));
}

TEST_F(DeviceOperations, thatAreRefusedLeaveNoErrorOnTheDevice) {
  const auto device = plug();
  refuse(ports::kDAReturnNotPermitted);
  device->unmount();
  world.runMainQueue();
  EXPECT_EQ(device->error(), std::nullopt);
}

TEST_F(DeviceRename, postsTheReloadAtOnce) {
  plug()->rename("OTHER");
  EXPECT_THAT(events, ElementsAre("rename", kReloaded));
  EXPECT_FALSE(objects.back().has_value());
  EXPECT_EQ(world.disks.volumePath(disk), "/Volumes/STICK");
  world.runMainQueue();
  EXPECT_EQ(world.disks.volumePath(disk), "/Volumes/OTHER");
  EXPECT_EQ(objects.size(), 1);
}

TEST_F(DeviceRename, leavesTheRecordAsItIs) {
  const auto device = plug();
  device->rename("OTHER");
  world.runMainQueue();
  EXPECT_EQ(device->name(), "STICK");
}

TEST_F(DeviceFromPath, isTheDiskMountedThere) {
  EXPECT_EQ(ZQRemovableDevice::discReferenceFromPath(host, {"/Volumes/STICK", true}), disk);
}

TEST_F(DeviceFromPath, isNoneWhereNothingIsMounted) {
  EXPECT_EQ(ZQRemovableDevice::discReferenceFromPath(host, {"/Volumes/OTHER", true}), nullptr);
}

TEST_F(DeviceErase, ofDisk3s1AsHFSPlusErasesDisk3UnderTheSameName) {
  EXPECT_THAT(argumentsFor(3, stickAt("disk3s1")), ElementsAre("eraseDisk", "HFS+", "STICK", "disk3"));
}

TEST_F(DeviceErase, namesTheFileSystemOfTheCode) {
  EXPECT_THAT(argumentsFor(1, stickAt("disk2s1")), ElementsAre("eraseDisk", "FAT16", "STICK", "disk2"));
  EXPECT_THAT(argumentsFor(2, stickAt("disk2s1")), ElementsAre("eraseDisk", "FAT32", "STICK", "disk2"));
  EXPECT_THAT(argumentsFor(3, stickAt("disk2s1")), ElementsAre("eraseDisk", "HFS+", "STICK", "disk2"));
  EXPECT_THAT(argumentsFor(4, stickAt("disk2s1")), ElementsAre("eraseDisk", "JHFS+", "STICK", "disk2"));
}

TEST_F(DeviceErase, forAnUnknownCodeRunsTheToolWithEraseDiskAlone) {
  for (const std::int32_t code : {7, 0, 5, -1}) {
    EXPECT_THAT(argumentsFor(code, stickAt("disk3s1")), ElementsAre("eraseDisk")) << code;
  }
}

TEST_F(DeviceErase, takesTheLastTwoCharactersOffWhateverTheyAre) {
  EXPECT_THAT(argumentsFor(2, stickAt("disk3s12")), ElementsAre("eraseDisk", "FAT32", "STICK", "disk3s"));
  EXPECT_THAT(argumentsFor(2, stickAt("s1")), ElementsAre("eraseDisk", "FAT32", "STICK", ""));
}

TEST_F(DeviceErase, runsTheDiskUtilityOnceAndCapturesNothing) {
  argumentsFor(2, stickAt("disk2s1"));
  const auto runs = world.tools.runs();
  ASSERT_EQ(runs.size(), 1);
  EXPECT_EQ(runs[0].launchPath, kDiskUtility);
  EXPECT_EQ(runs[0].standardInput, std::nullopt);
  EXPECT_EQ(runs[0].capture, ports::ToolRun::Capture::none);
}

TEST_F(DeviceErase, isAnnouncedBeforeAndAfterTheToolWhateverComesOfIt) {
  argumentsFor(2, stickAt("disk2s1"));
  EXPECT_THAT(events, ElementsAre(kBegan, "diskutil", kComplete));
  for (const auto& object : objects) EXPECT_FALSE(object.has_value());
  EXPECT_THAT(world.log.lines(), IsEmpty());
}

TEST_F(DeviceErase, isAnnouncedTheSameWhenTheToolIsMissing) {
  world.tools.removeTool(kDiskUtility);
  argumentsFor(2, stickAt("disk2s1"));
  EXPECT_THAT(events, ElementsAre(kBegan, kComplete));
}

TEST_F(DeviceErase, withATooShortOrMissingBSDNameFailsAfterItIsAnnouncedAndRunsNothing) {
  for (const auto& description :
       {stickAt("d"), stickAt(""), stickWithout(ports::kDADiskDescriptionMediaBSDNameKey)}) {
    events.clear();
    EXPECT_THROW(describedAs(description)->formatDiscUsingFileSystem(ZQRemovableDeviceFileSystemFAT32),
                 std::out_of_range);
    EXPECT_THAT(events, ElementsAre(kBegan));
  }
  EXPECT_THAT(world.tools.runs(), IsEmpty());
}

TEST_F(DeviceErase, withATooShortBSDNameFailsForAnUnknownCodeToo) {
  EXPECT_THROW(argumentsFor(7, stickAt("d")), std::out_of_range);
  EXPECT_THAT(world.tools.runs(), IsEmpty());
}

}  // namespace
}  // namespace tests::devices

#pragma once

#include <cerrno>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

// From now on what this thread, and what it starts, mounts is theirs alone, and so is their view of what
// others had mounted before. Somebody who is not root becomes root of a user name space, which takes a
// process without other threads. Ends the test where neither is allowed.
inline void takeOwnMounts() {
  const bool isRoot = ::geteuid() == 0;
  const std::string user = "0 " + std::to_string(::geteuid()) + " 1";
  const std::string group = "0 " + std::to_string(::getegid()) + " 1";
  ASSERT_EQ(::unshare(CLONE_NEWNS | (isRoot ? 0 : CLONE_NEWUSER)), 0)
      << "this test mounts, as root with CAP_SYS_ADMIN or in a user name space, and may do neither here: "
      << std::strerror(errno);
  if (!isRoot) {
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << user;
    std::ofstream("/proc/self/gid_map") << group;
    ASSERT_EQ(::geteuid(), 0U) << "this process cannot be root of its user name space";
  }
  ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << std::strerror(errno);
}

// The same where it takes no user name space: in one, files of other users have no owner.
inline void takeOwnMountsAsRoot() {
  if (::geteuid() == 0) takeOwnMounts();
}

#pragma once

#include <string>

#include "base/result.h"
#include "base/secret.h"

// The first line of a file, which may be a pipe, without its line feed. An Error when it cannot be read, is
// empty, is longer than a password can be, or holds what no password text can hold (a NUL, or no UTF-8).
base::Result<base::Secret> readPasswordFile(const std::string& path);

// This process and those that it starts leave no core files: passwords pass through them.
void leaveNoCore();

// That, and keeps other programs of the same user from looking into this process. Those that want to know who
// talks to them, as keyrings do, cannot see what program it is then.
void keepMemoryPrivate();

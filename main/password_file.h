#pragma once

#include <string>

#include "base/result.h"
#include "base/secret.h"

// The first line of a file, which may be a pipe, without its line feed. An Error when it cannot be read, is
// empty, is longer than a password can be, or holds what no password text can hold (a NUL, or no UTF-8).
base::Result<base::Secret> readPasswordFile(const std::string& path);

// Keeps what this process holds in memory out of core files, and away from other programs of the same user.
void keepMemoryPrivate();

#pragma once

#include <atomic>
#include <string>

#include "base/result.h"
#include "base/secret.h"

// Asks for a password at the terminal that the process belongs to, which does not show what is typed.
// `interrupted` is set by a signal that ends the wait.
base::Result<base::Secret> promptForPassword(const std::string& question,
                                             const std::atomic<bool>& interrupted);

#pragma once

#include "base/result.h"
#include "tools/diskutil.h"

// Erases a removable disk: by writing it where the caller may open it, and otherwise through the disk
// service. Nothing on the disk changes unless it can be had alone and everything that goes onto it is ready.
base::Result<void> eraseDisk(const tools::Erasure& erasure);

#pragma once

// Deliberately wrong: one host that includes another.
#include "hosts/linux/LinuxHost.h"

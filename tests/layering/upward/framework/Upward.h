#pragma once

// Deliberately wrong: a framework header that reaches up into the module.
#include "Fwd/FwdNexthopNhIndexResolverSm.h"

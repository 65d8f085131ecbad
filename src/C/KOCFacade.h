// What the facade's C functions share across their two files.
#pragma once

#include <memory>

#include "kovantis/KOConstants.h"
#include "kovantis/KOPlatform.h"
#include "kovantis/Kovantis.h"

namespace KOC {

Kovantis& sdk();

/// The screen of that name, for the calls that take one (none for NULL: the screen on top).
std::shared_ptr<KOViewController> screenNamed(const char* name);

}  // namespace KOC

// The sample app's privacy section: the app asks for consent, the user says no (the held events
// are discarded), then yes, then no again (the held events sent first), asks for an export of
// what the phone keeps, and wipes it; after each step, what the service received.
#pragma once

#include <string>

#include "Sim/KOSimDevice.h"
#include "kovantis/emulator/KOEmulator.h"

/// Runs the section; the export goes to `exportPath`. The SDK stays stopped afterwards (a wipe).
void runPrivacySection(KOSimDevice& device, KOEmulator& emulator, const std::string& exportPath);

// Lets GoogleTest print a KOValue readably in failure messages.
#pragma once

#include <ostream>

#include "kovantis/KOValue.h"

inline void PrintTo(const KOValue& value, std::ostream* os) {
  *os << KOValue::kindName(value.kind()) << " " << value.description();
}

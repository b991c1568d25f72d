#pragma once

// The checks run through the same fixture as the sensors: see sensor_session.h.
#include "integration/sensor_session.h"

namespace integration {
using check_session = sensor_session;
}  // namespace integration

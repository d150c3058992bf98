#pragma once
// The scriptable platform: a clock the caller advances, a main queue the caller drains, and
// sensors, geocoder, application and device that the caller drives. Replays and tests run the
// engine on it.
//
// Every class here is safe to call from any thread; the engine's callbacks still run only where
// the seams' contracts say (on the main queue, when the caller drains it).

#include "platform/sim/Application.h"
#include "platform/sim/Device.h"
#include "platform/sim/Geocoder.h"
#include "platform/sim/LocationManager.h"
#include "platform/sim/MainQueue.h"
#include "platform/sim/MotionSource.h"
#include "platform/sim/Platform.h"
#include "platform/sim/SequentialIdGenerator.h"
#include "platform/sim/VirtualClock.h"

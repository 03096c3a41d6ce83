// KROCore: the umbrella header. Includes every public header of libkrocore.
#pragma once

#include "KROVersion.h"

// Utilities and the object model
#include "KROClassRegistry.h"
#include "KROLog.h"
#include "KRONotificationCenter.h"
#include "KROObject.h"
#include "KROPropertyList.h"
#include "KRORange.h"
#include "KROResources.h"
#include "KROStringWithFormat.h"

// Core audio data
#include "KROError.h"
#include "KROLocalizedString.h"
#include "KRONSError.h"

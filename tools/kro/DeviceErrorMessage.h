// The text kro prints for a failure of the device layer: the error's
// description, and what to do when no audio server is running.
#pragma once

#include <string>

#include "KROError.h"

std::string deviceErrorMessage(const KROError& error);

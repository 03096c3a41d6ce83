#include "DeviceErrorMessage.h"

#include "KROAudioDeviceBackend.h"

std::string deviceErrorMessage(const KROError& error) {
    std::string message = error.description();
    if (error.code() == KROAudioDeviceBackend::notRunning) {
        message += "\nStart a JACK server (jackd) or PipeWire's JACK, then try again.";
    }
    return message;
}

#include "KROAudioGenerator.h"

#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROAudioGenerator, KROAudioProcessor)

bool KROAudioGenerator::init(KROErrorPtr* /*error*/) {
    inputBuses_.clear();
    outputBuses_.clear();
    automations_.clear();
    auto bus = std::make_shared<KROAudioOutputBus>();
    bus->initWithSource(this);
    outputBuses_.push_back(std::move(bus));
    parameters_.reset();
    channelConfigurations_.reset();
    return true;
}

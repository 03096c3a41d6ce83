#include "KROAudioProcessor.h"

#include <algorithm>

#include "KROAudioAutomation.h"
#include "KROAudioConnection.h"
#include "KROAudioProcessorDock.h"
#include "KROClassRegistry.h"
#include "KROSampleFrames.h"

KRO_REGISTER_CLASS(KROAudioProcessor, KROObject)

namespace {

// A channel configuration read from settings: an array of two-element arrays
// of numbers. Any other shape is refused as a whole and counts as absent.
std::optional<std::vector<KROChannelConfiguration>>
channelConfigurationsFrom(const KROPropertyList& value) {
    const KROPropertyList::Array* const elements = value.arrayValue();
    if (!elements) {
        return std::nullopt;
    }
    std::vector<KROChannelConfiguration> configurations;
    for (const KROPropertyList& element : *elements) {
        const KROPropertyList::Array* const pair = element.arrayValue();
        if (!pair || pair->size() != 2 || !(*pair)[0].isNumber() || !(*pair)[1].isNumber()) {
            return std::nullopt;
        }
        configurations.push_back({(*pair)[0].longValue(), (*pair)[1].longValue()});
    }
    return configurations;
}

KROPropertyList propertyListFrom(const std::vector<KROChannelConfiguration>& configurations) {
    KROPropertyList array = KROPropertyList::array();
    for (const KROChannelConfiguration& configuration : configurations) {
        array.addObject(KROPropertyList::Array{configuration[0], configuration[1]});
    }
    return array;
}

} // namespace

KROAudioProcessor::~KROAudioProcessor() {
    // Buses may outlive their processor (a dock shares them); none may keep
    // a pointer to it.
    for (const auto& bus : inputBuses_) {
        if (bus->destination() == this) {
            bus->setDestination(nullptr);
        }
    }
    for (const auto& bus : outputBuses_) {
        if (bus->source() == this) {
            bus->setSource(nullptr);
        }
    }
    for (const auto& automation : automations_) {
        if (automation->processor() == this) {
            automation->setProcessor(nullptr);
        }
    }
}

bool KROAudioProcessor::init(KROErrorPtr* /*error*/) {
    automations_.clear();
    inputBuses_.clear();
    outputBuses_.clear();
    inputBuses_.push_back(makeInputBus(inputBusClass()));
    outputBuses_.push_back(makeOutputBus(outputBusClass()));
    parameters_ = KROPropertyList::dictionary();
    channelConfigurations_ = std::vector<KROChannelConfiguration>{{-1, -1}};
    return true;
}

std::shared_ptr<KROAudioProcessor> KROAudioProcessor::initReturningObject(KROErrorPtr* error) {
    if (!init(error)) {
        return nullptr;
    }
    return std::static_pointer_cast<KROAudioProcessor>(shared_from_this());
}

std::shared_ptr<KROAudioProcessor>
KROAudioProcessor::processorWithSettings(const KROPropertyList& settings, KROErrorPtr* error) {
    const KROPropertyList* const className = settings.objectForKey("class");
    if (!className || !className->isString() || className->stringValue()->empty()) {
        return nullptr;
    }
    auto processor = std::dynamic_pointer_cast<KROAudioProcessor>(
        KROClassRegistry::sharedRegistry().makeObject(*className->stringValue()));
    if (!processor) {
        return nullptr;
    }
    processor = processor->initReturningObject(error);
    if (!processor || !processor->setSettings(settings, error)) {
        return nullptr;
    }
    return processor;
}

std::shared_ptr<KROAudioProcessor> KROAudioProcessor::copy() const {
    // A copy is made through settings only, so bus
    // counts, connections, stream and initialisation are not carried over.
    auto copy = std::dynamic_pointer_cast<KROAudioProcessor>(
        KROClassRegistry::sharedRegistry().makeObject(className()));
    if (copy) {
        copy = copy->initReturningObject(nullptr);
    }
    if (!copy || !copy->setSettings(settings(), nullptr)) {
        return nullptr;
    }
    return copy;
}

bool KROAudioProcessor::setSettings(const KROPropertyList& settings, KROErrorPtr* /*error*/) {
    if (const KROPropertyList* const value = settings.objectForKey("identifier");
        value && value->isString()) {
        identifier_ = *value->stringValue();
    }
    if (const KROPropertyList* const value = settings.objectForKey("automations");
        value && value->isArray()) {
        replaceAutomations(*value->arrayValue());
    }
    if (const KROPropertyList* const value = settings.objectForKey("channelConfigurations")) {
        if (auto configurations = channelConfigurationsFrom(*value)) {
            channelConfigurations_ = std::move(configurations);
        }
    }
    return true;
}

void KROAudioProcessor::replaceAutomations(const KROPropertyList::Array& elements) {
    KROClassRegistry& registry = KROClassRegistry::sharedRegistry();
    Automations replacements;
    for (const KROPropertyList& element : elements) {
        std::shared_ptr<KROAudioAutomation> automation;
        const KROPropertyList* const className = element.objectForKey("class");
        if (className && className->isString()) {
            automation = std::dynamic_pointer_cast<KROAudioAutomation>(
                registry.makeObject(*className->stringValue()));
        }
        // An unknown or missing class falls back to the plain record.
        if (!automation) {
            automation = KROAudioAutomation::automation();
        }
        automation->setProcessor(this);
        automation->setProperties(element);
        replacements.push_back(std::move(automation));
    }
    // The old list is released after the lock, by replacements.
    const std::lock_guard guard(automationsLock_);
    for (const auto& automation : automations_) {
        automation->setProcessor(nullptr);
    }
    automations_.swap(replacements);
}

KROPropertyList KROAudioProcessor::settings() const {
    KROPropertyList settings;
    settings.setObjectForKey("class", className());
    if (!identifier_.empty()) {
        settings.setObjectForKey("identifier", identifier_);
    }
    KROPropertyList automations = KROPropertyList::array();
    for (const auto& automation : automations_) {
        automations.addObject(automation->properties());
    }
    settings.setObjectForKey("automations", std::move(automations));
    if (channelConfigurations_) {
        settings.setObjectForKey("channelConfigurations",
                                 propertyListFrom(*channelConfigurations_));
    }
    return settings;
}

bool KROAudioProcessor::initializeForRender(KROErrorPtr* error) {
    return KROFailWithFormat<KROAudioProcessorError>(
        error, 5, "KROAudioProcessor_action_initializeForRender", className());
}

bool KROAudioProcessor::initializeForInput(KROErrorPtr* error) {
    return KROFailWithFormat<KROAudioProcessorError>(
        error, 6, "KROAudioProcessor_action_initializeForInput", className());
}

bool KROAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    return true;
}

bool KROAudioProcessor::reset(KROErrorPtr* /*error*/) {
    return true;
}

void KROAudioProcessor::render(KROAudioBufferList& /*buffer*/, KROAudioOutputBus& /*bus*/,
                               KROAudioStreamRenderInfo& /*info*/) {}

void KROAudioProcessor::input(KROAudioBufferList& /*buffer*/, KROAudioInputBus& /*bus*/,
                              KROAudioStreamRenderInfo& /*info*/) {}

std::vector<std::string> KROAudioProcessor::parameterKeys() const {
    return parameters_ ? parameters_->allKeys() : std::vector<std::string>{};
}

const KROPropertyList*
KROAudioProcessor::descriptionOfParameterWithKey(const std::string& key) const {
    return parameters_ ? parameters_->objectForKey(key) : nullptr;
}

std::optional<KROPropertyList>
KROAudioProcessor::valueForParameterKey(const std::string& /*key*/) const {
    return std::nullopt;
}

void KROAudioProcessor::setValue(const KROPropertyList& /*value*/, const std::string& /*key*/) {}

bool KROAudioProcessor::setNumberOfInputBuses(std::uint64_t count, KROErrorPtr* error) {
    constexpr const char* action = "KROAudioProcessor_action_settingNumberOfInputBuses";
    // The initialised test comes before the equal-count test: a frozen
    // processor refuses even a request that would change nothing.
    if (initialized_) {
        return KROFail<KROAudioProcessorError>(error, 1, action);
    }
    if (inputBuses_.size() == count) {
        return true;
    }
    if (count > maximumNumberOfInputBuses()) {
        return KROFail<KROAudioProcessorError>(error, 2, action);
    }
    const std::string busClass = inputBusClass();
    while (inputBuses_.size() < count) {
        inputBuses_.push_back(makeInputBus(busClass));
    }
    // Shrinking removes from the end, so bus i keeps its place.
    inputBuses_.resize(count);
    return true;
}

bool KROAudioProcessor::setNumberOfOutputBuses(std::uint64_t count, KROErrorPtr* error) {
    constexpr const char* action = "KROAudioProcessor_action_settingNumberOfOutputBuses";
    if (initialized_) {
        return KROFail<KROAudioProcessorError>(error, 1, action);
    }
    if (outputBuses_.size() == count) {
        return true;
    }
    if (count > maximumNumberOfOutputBuses()) {
        return KROFail<KROAudioProcessorError>(error, 2, action);
    }
    const std::string busClass = outputBusClass();
    while (outputBuses_.size() < count) {
        outputBuses_.push_back(makeOutputBus(busClass));
    }
    outputBuses_.resize(count);
    return true;
}

std::shared_ptr<KROAudioInputBus> KROAudioProcessor::makeInputBus(const std::string& busClass) {
    auto bus = std::dynamic_pointer_cast<KROAudioInputBus>(
        KROClassRegistry::sharedRegistry().makeObject(busClass));
    if (!bus) {
        bus = std::make_shared<KROAudioInputBus>();
    }
    bus->initWithDestination(this);
    return bus;
}

std::shared_ptr<KROAudioOutputBus> KROAudioProcessor::makeOutputBus(const std::string& busClass) {
    auto bus = std::dynamic_pointer_cast<KROAudioOutputBus>(
        KROClassRegistry::sharedRegistry().makeObject(busClass));
    if (!bus) {
        bus = std::make_shared<KROAudioOutputBus>();
    }
    bus->initWithSource(this);
    return bus;
}

KROAudioConnection* KROAudioProcessor::inputConnection() const {
    const KROAudioInputBus* const bus = inputBus();
    return bus ? bus->connection() : nullptr;
}

KROAudioConnection* KROAudioProcessor::outputConnection() const {
    const KROAudioOutputBus* const bus = outputBus();
    return bus ? bus->connection() : nullptr;
}

void KROAudioProcessor::dock(KROAudioProcessorDock& dock) {
    // The processor's own buses are released and the
    // dock's two bus objects become its buses.
    if (&dock == this) {
        return;
    }
    inputBuses_.clear();
    outputBuses_.clear();
    if (!dock.inputBuses().empty()) {
        const auto& bus = dock.inputBuses().front();
        bus->setDestination(this);
        inputBuses_.push_back(bus);
    }
    if (!dock.outputBuses().empty()) {
        const auto& bus = dock.outputBuses().front();
        bus->setSource(this);
        outputBuses_.push_back(bus);
    }
    setStream(dock.stream());
}

std::shared_ptr<KROAudioAutomation>
KROAudioProcessor::objectInAutomationsAtIndex(std::size_t index) const {
    return index < automations_.size() ? automations_[index] : nullptr;
}

std::optional<std::size_t>
KROAudioProcessor::indexOfObjectInAutomations(const KROAudioAutomation& automation) const {
    for (std::size_t index = 0; index < automations_.size(); ++index) {
        if (automations_[index].get() == &automation) {
            return index;
        }
    }
    return std::nullopt;
}

KROAudioProcessor::Automations
KROAudioProcessor::automationsAtIndexes(const KROIndexSet& indexes) const {
    Automations result;
    for (const std::size_t index : indexes) {
        if (index < automations_.size()) {
            result.push_back(automations_[index]);
        }
    }
    return result;
}

void KROAudioProcessor::insertAutomationsAtIndexes(const Automations& automations,
                                                   const KROIndexSet& indexes) {
    if (automations.size() != indexes.size()) {
        return;
    }
    std::size_t count = automations_.size();
    for (const std::size_t index : indexes) {
        if (index > count++) {
            return;
        }
    }
    for (const auto& automation : automations) {
        automation->setProcessor(this);
    }
    const std::lock_guard guard(automationsLock_);
    auto automation = automations.begin();
    for (const std::size_t index : indexes) {
        automations_.insert(automations_.begin() + static_cast<std::ptrdiff_t>(index),
                            *automation++);
    }
}

void KROAudioProcessor::removeAutomationsAtIndexes(const KROIndexSet& indexes) {
    // Kept as it stands: every automation of the list loses its processor,
    // not only those removed; a caller that keeps some sets it again.
    const std::lock_guard guard(automationsLock_);
    for (const auto& automation : automations_) {
        automation->setProcessor(nullptr);
    }
    for (auto index = indexes.rbegin(); index != indexes.rend(); ++index) {
        if (*index < automations_.size()) {
            automations_.erase(automations_.begin() + static_cast<std::ptrdiff_t>(*index));
        }
    }
}

void KROAudioProcessor::applyAutomations(std::int64_t firstFrame, std::uint64_t frames,
                                         double sampleRate) {
    if (!(sampleRate > 0.0)) {
        return;
    }
    const std::lock_guard guard(automationsLock_);
    // The keys in ascending order, each once, without a sorted copy: the
    // render thread may not allocate.
    const std::string* previous = nullptr;
    for (;;) {
        const std::string* key = nullptr;
        for (const auto& automation : automations_) {
            const std::string& candidate = automation->parameterKey();
            if (automation->isEnabled() && (!previous || candidate > *previous) &&
                (!key || candidate < *key)) {
                key = &candidate;
            }
        }
        if (!key) {
            return;
        }
        const float value = automatedValue(*key, firstFrame, frames, sampleRate);
        setValue(KROPropertyList(static_cast<double>(value)), *key);
        previous = key;
    }
}

float KROAudioProcessor::automatedValue(const std::string& key, std::int64_t firstFrame,
                                        std::uint64_t frames, double sampleRate) const {
    constexpr std::size_t none = SIZE_MAX;
    const double blockStart = static_cast<double>(firstFrame) / sampleRate;
    const double blockEnd =
        (static_cast<double>(firstFrame) + static_cast<double>(frames)) / sampleRate;
    std::int64_t blockEndFrame = 0;
    if (__builtin_add_overflow(firstFrame, static_cast<std::int64_t>(frames), &blockEndFrame)) {
        blockEndFrame = INT64_MAX;
    }
    float value = 0.0f;
    std::size_t previous = none;
    // The run in order of location, and of place in the list at equal
    // locations.
    for (;;) {
        std::size_t next = none;
        for (std::size_t index = 0; index < automations_.size(); ++index) {
            const KROAudioAutomation& candidate = *automations_[index];
            if (!candidate.isEnabled() || candidate.parameterKey() != key) {
                continue;
            }
            const double location = candidate.location();
            if (previous != none) {
                const double previousLocation = automations_[previous]->location();
                if (!(location > previousLocation ||
                      (location == previousLocation && index > previous))) {
                    continue;
                }
            }
            if (next == none || location < automations_[next]->location()) {
                next = index;
            }
        }
        if (next == none) {
            return value;
        }
        const KROAudioAutomation& automation = *automations_[next];
        if (previous == none) {
            value = automation.valueForLocation(automation.location());
        }
        previous = next;
        const std::int64_t start = KROFrameForSeconds(automation.location(), sampleRate);
        std::int64_t end = 0;
        if (__builtin_add_overflow(start, KROFrameForSeconds(automation.length(), sampleRate),
                                   &end)) {
            end = INT64_MAX;
        }
        if (std::max(start, firstFrame) < std::min(end, blockEndFrame)) {
            const double location = automation.location();
            if (location < blockStart || location > blockEnd) {
                value = automation.valueForLocation(blockStart);
            }
        } else if (end <= firstFrame) {
            // Ended: its last value holds.
            value = automation.valueForLocation(automation.location() + automation.length());
        }
    }
}

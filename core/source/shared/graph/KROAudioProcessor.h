// The processor, a node of the processing graph, and the base
// contract on which every processor stands. A processor acts in both bus
// delegate roles: render (render:forBus:info:) for its output buses, input
// (input:fromBus:info:) for its input buses.
//
// Two-phase construction (DESIGN.md section 3): std::make_shared, then
// init(error). Class-level operations that subclasses override to state their
// shape (maximumNumberOfInputBuses, inputBusClass ...) are virtual const
// members. Keyed-list accessors join their keywords:
// insertAutomations:atIndexes: is insertAutomationsAtIndexes.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "KROAudioBus.h"
#include "KROError.h"
#include "KROObject.h"
#include "KROPropertyList.h"

class KROAudioAutomation;
class KROAudioConnection;
class KROAudioProcessorDock;
class KROAudioStream;

// An input and an output channel count that a processor accepts; -1 is any.
using KROChannelConfiguration = std::array<std::int64_t, 2>;
// Ascending, unique indexes, as an index set.
using KROIndexSet = std::set<std::size_t>;

class KROAudioProcessor : public KROObject,
                          public KROAudioInputBusDelegate,
                          public KROAudioOutputBusDelegate {
    KRO_DECLARE_CLASS(KROAudioProcessor)

public:
    using InputBuses = std::vector<std::shared_ptr<KROAudioInputBus>>;
    using OutputBuses = std::vector<std::shared_ptr<KROAudioOutputBus>>;
    using Automations = std::vector<std::shared_ptr<KROAudioAutomation>>;

    KROAudioProcessor() = default;
    KROAudioProcessor(const KROAudioProcessor&) = delete;
    KROAudioProcessor& operator=(const KROAudioProcessor&) = delete;
    // Leaves no bus or automation pointing at this processor.
    ~KROAudioProcessor() override;

    // One input bus, one output bus, empty parameters, the
    // channel configuration (-1, -1). Subclasses call it first.
    virtual bool init(KROErrorPtr* error = nullptr);
    // The C++ form of an init: that may give up the object under
    // construction and return another (as KROHardwareAudioProcessor does):
    // every maker of processors (the stream, processorWithSettings, copy)
    // calls this. The base runs init(error) and answers this object, or none
    // when init fails.
    virtual std::shared_ptr<KROAudioProcessor> initReturningObject(KROErrorPtr* error = nullptr);

    // A processor of the class named under "class", made with
    // init: and given the settings. An absent, empty or unknown class name
    // gives none and stores no error.
    static std::shared_ptr<KROAudioProcessor> processorWithSettings(const KROPropertyList& settings,
                                                                    KROErrorPtr* error = nullptr);

    // A new object of this class made with init: and given
    // settings(). Buses are not part of settings, so a copy has the bus
    // counts that init: gives, no connections, no stream, and is not
    // initialised. None when the class is not registered or the settings
    // are refused.
    std::shared_ptr<KROAudioProcessor> copy() const;

    // Reads "identifier", "automations" (replacing the whole list; an
    // unknown class becomes a KROAudioAutomation) and "channelConfigurations"
    // when present; an absent key leaves the value alone. The base never
    // fails; a value of the wrong type counts as absent.
    virtual bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr);
    virtual KROPropertyList settings() const;

    // Class-level shape, overridden by subclasses.
    virtual std::uint64_t maximumNumberOfInputBuses() const { return 1; }
    virtual std::uint64_t maximumNumberOfOutputBuses() const { return 1; }
    // Registered class names of the buses that this class makes.
    virtual std::string inputBusClass() const { return "KROAudioInputBus"; }
    virtual std::string outputBusClass() const { return "KROAudioOutputBus"; }
    // The registered name of the host editor class; empty for none.
    virtual std::string editorClass() const { return {}; }

    // Set-up thread. The base initializeForRender fails with code 5 and
    // initializeForInput with code 6. Every class that can stand on a render
    // chain overrides initializeForRender, even with nothing to allocate,
    // because it passes the format upstream there.
    virtual bool initializeForRender(KROErrorPtr* error = nullptr);
    virtual bool initializeForInput(KROErrorPtr* error = nullptr);
    virtual bool uninitialize(KROErrorPtr* error = nullptr);
    virtual bool reset(KROErrorPtr* error = nullptr);

    // Render and input threads: the base versions do nothing.
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;
    void input(KROAudioBufferList& buffer, KROAudioInputBus& bus,
               KROAudioStreamRenderInfo& info) override;

    // Frames by which the output lags the input.
    virtual std::uint64_t latency() const { return 0; }

    // Parameters, for hosts and automation.
    virtual std::vector<std::string> parameterKeys() const;
    // The description in parameters, none when absent.
    virtual const KROPropertyList* descriptionOfParameterWithKey(const std::string& key) const;
    // The base has no values: none.
    virtual std::optional<KROPropertyList> valueForParameterKey(const std::string& key) const;
    // The base does nothing. Any thread: a subclass applies the value without
    // a lock on the render path.
    virtual void setValue(const KROPropertyList& value, const std::string& key);

    // Buses.
    std::size_t numberOfInputBuses() const { return inputBuses_.size(); }
    std::size_t numberOfOutputBuses() const { return outputBuses_.size(); }
    // Refused with code 1 while initialised (tested first) and code 2 above
    // the class's maximum. Shrinking removes from the end, so bus i keeps
    // its place.
    bool setNumberOfInputBuses(std::uint64_t count, KROErrorPtr* error = nullptr);
    bool setNumberOfOutputBuses(std::uint64_t count, KROErrorPtr* error = nullptr);
    // Bus 0, or none (a generator's inputBus).
    KROAudioInputBus* inputBus() const {
        return inputBuses_.empty() ? nullptr : inputBuses_.front().get();
    }
    KROAudioOutputBus* outputBus() const {
        return outputBuses_.empty() ? nullptr : outputBuses_.front().get();
    }
    KROAudioConnection* inputConnection() const;
    KROAudioConnection* outputConnection() const;
    const InputBuses& inputBuses() const { return inputBuses_; }
    const OutputBuses& outputBuses() const { return outputBuses_; }

    // Takes over the dock's two bus objects and its stream.
    void dock(KROAudioProcessorDock& dock);

    // Automations, a keyed list.
    std::size_t countOfAutomations() const { return automations_.size(); }
    const Automations& enumeratorOfAutomations() const { return automations_; }
    // None at or past the count.
    std::shared_ptr<KROAudioAutomation> objectInAutomationsAtIndex(std::size_t index) const;
    std::optional<std::size_t>
    indexOfObjectInAutomations(const KROAudioAutomation& automation) const;
    Automations automationsAtIndexes(const KROIndexSet& indexes) const;
    // Sets each automation's processor, then inserts so that each ends at its
    // index. Nothing happens when the counts differ or an index lies past the
    // end of the list as it grows.
    void insertAutomationsAtIndexes(const Automations& automations, const KROIndexSet& indexes);
    // Clears the processor of every automation, then removes those at the
    // indexes; indexes past the end are ignored.
    void removeAutomationsAtIndexes(const KROIndexSet& indexes);
    // Held by the render path while it reads the automations, and by every
    // change of them while the processor renders: insert, remove and
    // settings take it themselves; a host that edits an automation or its
    // curve in place holds it around the edit.
    std::mutex& automationsLock() const { return automationsLock_; }
    // Plays the automations for one block of frames from firstFrame, at the
    // rate given: for each parameter key, in key order, one value from its
    // enabled automations in order of location, set once with setValue, with
    // no ramp inside the block. An automation that has ended holds its last
    // value. Takes automationsLock and allocates nothing of its own.
    void applyAutomations(std::int64_t firstFrame, std::uint64_t frames, double sampleRate);

    // Plain access.
    const std::string& identifier() const { return identifier_; }
    void setIdentifier(std::string identifier) { identifier_ = std::move(identifier); }
    // Absent on a generator until settings give it.
    const std::optional<KROPropertyList>& parameters() const { return parameters_; }
    void setParameters(std::optional<KROPropertyList> parameters) {
        parameters_ = std::move(parameters);
    }
    const std::optional<std::vector<KROChannelConfiguration>>& channelConfigurations() const {
        return channelConfigurations_;
    }
    void setChannelConfigurations(std::optional<std::vector<KROChannelConfiguration>> value) {
        channelConfigurations_ = std::move(value);
    }
    // Back reference, not owned.
    KROAudioStream* stream() const { return stream_; }
    void setStream(KROAudioStream* stream) { stream_ = stream; }
    // Set and cleared by the stream; a processor does not set it itself.
    virtual bool isInitialized() const { return initialized_; }
    virtual void setInitialized(bool initialized) { initialized_ = initialized; }

protected:
    std::shared_ptr<KROAudioInputBus> makeInputBus(const std::string& busClass);
    std::shared_ptr<KROAudioOutputBus> makeOutputBus(const std::string& busClass);
    void replaceAutomations(const KROPropertyList::Array& elements);
    // The value of one parameter's automations for a block (applyAutomations).
    float automatedValue(const std::string& key, std::int64_t firstFrame, std::uint64_t frames,
                         double sampleRate) const;

    std::string identifier_;
    std::optional<std::vector<KROChannelConfiguration>> channelConfigurations_;
    std::optional<KROPropertyList> parameters_;
    InputBuses inputBuses_;
    OutputBuses outputBuses_;
    Automations automations_;
    mutable std::mutex automationsLock_;
    KROAudioStream* stream_ = nullptr;
    bool initialized_ = false;
};

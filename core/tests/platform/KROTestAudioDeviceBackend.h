// A device layer of fixed answers for the edge cases of Part 9.1 that no
// JACK server can show: rate ranges, several buffers, channels without names,
// data sources and exclusive use.
#pragma once

#include <unistd.h>

#include <map>
#include <optional>

#include "KROAudioDeviceBackend.h"

class KROTestAudioDeviceBackend : public KROAudioDeviceBackend {
public:
    static constexpr DeviceID deviceID = 7;

    std::vector<std::pair<double, double>> rateRanges{{44100, 44100}};
    std::vector<std::uint32_t> outputLayout{2};
    std::vector<std::uint32_t> inputLayout{2};
    // Channel names by element (from 1); missing ones have no name.
    std::map<std::uint32_t, std::string> channelNames;
    std::uint32_t frames = 64;
    // 'oink': none when the layer has no exclusive use; toggled by writing.
    std::optional<std::int64_t> hogPID;
    std::int64_t otherPID = 1;
    int hogWrites = 0;
    // 'ssc#' and 'lscn' of the input scope, and 'ssrc'.
    std::map<std::uint64_t, std::string> inputSourceNames;
    std::vector<std::uint64_t> selectedInputSources;

    Status deviceIDs(std::vector<DeviceID>& ids) override {
        ids = {deviceID};
        return noError;
    }
    Status defaultDevice(std::uint32_t, DeviceID& id) override {
        id = deviceID;
        return noError;
    }
    Status name(DeviceID, std::string& text) override {
        text = "Test device";
        return noError;
    }
    Status uid(DeviceID, std::string& text) override {
        text = "test:device";
        return noError;
    }
    Status streamLayout(DeviceID, std::uint32_t scope,
                        std::vector<std::uint32_t>& channelsPerBuffer) override {
        channelsPerBuffer = scope == scopeInput ? inputLayout : outputLayout;
        return noError;
    }
    Status channelName(DeviceID, std::uint32_t, std::uint32_t element, std::string& text) override {
        const auto found = channelNames.find(element);
        if (found == channelNames.end()) {
            return unknownProperty;
        }
        text = found->second;
        return noError;
    }
    Status sampleRateRanges(DeviceID, std::vector<std::pair<double, double>>& ranges) override {
        ranges = rateRanges;
        return noError;
    }
    Status sampleRate(DeviceID, double& rate) override {
        rate = 44100;
        return noError;
    }
    Status setSampleRate(DeviceID, double) override { return unsupportedOperation; }
    Status bufferFrames(DeviceID, std::uint32_t, std::uint32_t& value) override {
        value = frames;
        return noError;
    }
    Status setBufferFrames(DeviceID, std::uint32_t, std::uint32_t value) override {
        frames = value;
        return noError;
    }
    Status bufferFrameRange(DeviceID, std::uint32_t, std::uint32_t& minimum,
                            std::uint32_t& maximum) override {
        minimum = 16;
        maximum = 4096;
        return noError;
    }
    Status hogMode(DeviceID, std::int64_t& pid) override {
        if (!hogPID) {
            return unknownProperty;
        }
        pid = *hogPID;
        return noError;
    }
    Status toggleHogMode(DeviceID) override {
        ++hogWrites;
        hogPID = *hogPID == -1 ? std::int64_t(getpid()) : -1;
        return noError;
    }
    Status sourceIDs(DeviceID, std::uint32_t scope, std::vector<std::uint64_t>& ids) override {
        ids.clear();
        if (scope == scopeInput) {
            for (const auto& [id, name] : inputSourceNames) {
                ids.push_back(id);
            }
        }
        return noError;
    }
    Status sourceName(DeviceID, std::uint32_t, std::uint64_t sourceID, std::string& text) override {
        const auto found = inputSourceNames.find(sourceID);
        if (found == inputSourceNames.end()) {
            return unknownProperty;
        }
        text = found->second;
        return noError;
    }
    Status selectedSources(DeviceID, std::uint32_t, std::vector<std::uint64_t>& ids) override {
        ids = selectedInputSources;
        return noError;
    }
    Status setSelectedSources(DeviceID, std::uint32_t,
                              const std::vector<std::uint64_t>& ids) override {
        selectedInputSources = ids;
        return noError;
    }
    Status createIOProc(DeviceID, std::uint32_t, std::uint32_t, KROAudioDeviceIOProc, void*,
                        std::uint64_t& procID) override {
        procID = 1;
        return noError;
    }
    Status destroyIOProc(std::uint64_t) override { return noError; }
    Status start(std::uint64_t) override { return noError; }
    Status stop(std::uint64_t) override { return noError; }
    ListenerToken addSampleRateListener(DeviceID, Listener) override { return 1; }
    ListenerToken addDevicesListener(std::function<void()>) override { return 2; }
    void removeListener(ListenerToken) override {}
};

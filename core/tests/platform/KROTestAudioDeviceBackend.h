// A device layer of fixed answers for the edge cases of Part 9.1 that no
// JACK server can show: rate ranges, several buffers, channels without names.
#pragma once

#include <map>

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

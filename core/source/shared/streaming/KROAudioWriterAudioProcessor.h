// An offline head that renders a range of a graph into raw files: one file
// of native floats per channel (take.00, take.01 ...) and, for each overview
// class asked for, one table per channel (take.00.KROMinMaxWaveform ...).
// Pulls are whole numbers of overview blocks, so each pull appends whole
// entries. A failure or a cancel deletes every file it made.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "KROFileWriter.h"
#include "KROOfflineWriterAudioProcessor.h"

class KROAudioWriterAudioProcessor : public KROOfflineWriterAudioProcessor {
    KRO_DECLARE_CLASS(KROAudioWriterAudioProcessor)

public:
    // Code 2 for an empty range; then creates every file.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    bool uninitialize(KROErrorPtr* error = nullptr) override;

    const std::vector<std::string>& waveformClasses() const { return waveformClasses_; }
    void setWaveformClasses(std::vector<std::string> names) { waveformClasses_ = std::move(names); }
    // Extension ("00", "00.KROMinMaxWaveform") to the file made for it.
    const std::map<std::string, std::filesystem::path>& resultURLs() const { return resultURLs_; }

protected:
    bool storeBlock(const KROAudioBufferList& block, KROErrorPtr* error) override;
    bool finishWriting(KROErrorPtr* error) override;
    void abandonWriting(KROErrorPtr* error) override;

private:
    bool openFile(const std::string& key, KROErrorPtr* error);

    std::vector<std::string> waveformClasses_;
    std::map<std::string, std::shared_ptr<KROFileWriter>> writers_;
    std::map<std::string, std::filesystem::path> resultURLs_;
};

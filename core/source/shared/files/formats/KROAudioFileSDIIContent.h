// The handler of Sound Designer II files: big-endian samples filling the
// whole data fork, described by resources of the resource fork -- 'STR '
// 1000 to 1002 for bytes per sample, rate and channels, 'sdML' for markers,
// 'ddRL' for regions, 'sdLL' for loops. Read only. Where the fork lives on
// Linux is KROResourceForkFinder's concern.
#pragma once

#include "KROAudioFileContent.h"

class KROFileResource;

class KROAudioFileSDIIContent : public KROAudioFileContent {
    KRO_DECLARE_CLASS(KROAudioFileSDIIContent)

public:
    KROAudioFileSDIIContent();

    std::string format() const override;
    std::string extension() const override;
    // An existing file with a resource fork that holds resources.
    bool supportsURL(const std::filesystem::path& url) const override;

    // Fails with code 5 when the fork does not give channels, depth and rate.
    bool parse(KROErrorPtr* error = nullptr) override;
    bool getAudio(KROAudioBufferList& buffer, std::uint64_t frame,
                  KROErrorPtr* error = nullptr) override;

protected:
    KROErrorPtr errorWithCode(std::int64_t code, const std::string& action) const override;

private:
    void readMarkers(const KROFileResource& resource);
    void readRegions(const KROFileResource& resource);
    void readLoops(const KROFileResource& resource);
};

// Stream descriptions: an object around one AudioStreamBasicDescription record
// that keeps the derived byte counts of linear PCM true as rate, channels,
// depth or flags change, and names formats. A plain value object used by one
// thread at a time.
//
// Operations are named by their first keyword, with two exceptions forced by
// the root object, whose description() is the text a person reads:
//   +description  ->  defaultDescription()   (a new object with the defaults)
//   description   ->  basicDescription()     (the address of the record)
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "KROAudioStreamBasicDescription.h"
#include "KROObject.h"

class KROAudioStreamDescription : public KROObject {
    KRO_DECLARE_CLASS(KROAudioStreamDescription)

public:
    // The working format: one channel of non-interleaved 32-bit float at
    // 44100 Hz. make_shared alone gives them; the init operations reset them.
    KROAudioStreamDescription();

    KROAudioStreamDescription& init();
    // The defaults, then setSampleRate and setNumberOfChannels.
    KROAudioStreamDescription& initWithSampleRate(double sampleRate,
                                                  std::uint64_t numberOfChannels);
    // The defaults, then a copy of all nine fields.
    KROAudioStreamDescription& initWithBasicDescription(const AudioStreamBasicDescription& record);

    static std::shared_ptr<KROAudioStreamDescription> defaultDescription();
    static std::shared_ptr<KROAudioStreamDescription>
    descriptionWithSampleRate(double sampleRate, std::uint64_t numberOfChannels);
    static std::shared_ptr<KROAudioStreamDescription>
    descriptionWithBasicDescription(const AudioStreamBasicDescription& record);

    // Always of class KROAudioStreamDescription, with the receiver's record.
    std::shared_ptr<KROAudioStreamDescription> copy() const;

    // All nine fields to zero.
    void clear();
    // For linear PCM only: bytes per frame and per packet from depth, channels
    // and the non-interleaved flag. Other formats are left alone.
    void refresh();

    // Only for an object of this class that passes isEqualToDescription.
    bool isEqual(const KROObject& other) const override;
    // The eight fields from mSampleRate to mBitsPerChannel; mReserved is not
    // compared, and a NaN rate is equal to nothing.
    bool isEqualToDescription(const KROAudioStreamDescription& other) const;
    std::size_t hash() const override;
    std::string description() const override;

    // The record, for calls into platform services; it stays the object's.
    AudioStreamBasicDescription* basicDescription() { return &record_; }
    const AudioStreamBasicDescription* basicDescription() const { return &record_; }

    double sampleRate() const { return record_.mSampleRate; }
    // No refresh: the rate plays no part in the byte counts.
    void setSampleRate(double sampleRate) { record_.mSampleRate = sampleRate; }
    AudioFormatID format() const { return record_.mFormatID; }
    void setFormat(AudioFormatID format);
    std::uint64_t numberOfChannels() const { return record_.mChannelsPerFrame; }
    // Stored in 32 bits, the upper half dropped.
    void setNumberOfChannels(std::uint64_t numberOfChannels);
    std::uint64_t bitDepth() const { return record_.mBitsPerChannel; }
    // Stored in 32 bits, the upper half dropped.
    void setBitDepth(std::uint64_t bitDepth);
    AudioFormatFlags flags() const { return record_.mFormatFlags; }
    void setFlags(AudioFormatFlags flags);
    std::uint32_t framesPerPacket() const { return record_.mFramesPerPacket; }
    std::uint32_t bytesPerPacket() const { return record_.mBytesPerPacket; }

    // Fills what is missing for the formats of the table in the source file.
    // For any other format the record stays as it is and a
    // KROAudioStreamDescriptionError is shown through alert().
    void complete();

    // Fixed English names, not localized; "unknown" for the rest.
    std::string formatName() const;

private:
    AudioStreamBasicDescription record_;
};

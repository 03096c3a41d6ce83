// Overview tables: one entry for each block of 256 frames of one channel, a
// positive and a negative value, so that a display draws hours of audio
// without reading it. Each class fixes how a block is reduced and how the
// values are packed; the class name selects the class in settings and is the
// extension of the table's file. Values are stored in the host's byte order.
//
//   class                      bytes  entry                reduction
//   KROMinMaxWaveform            4    int16 max, int16 min  largest, smallest sample
//   KROSmallMinMaxWaveform       2    int8 max, int8 min    largest, smallest sample
//   KROMagnitudeWaveform         2    int16                 largest magnitude
//   KROMeanWaveform              2    int16                 mean magnitude
//   KRORMSWaveform               2    int16                 root mean square
//   KROSmall{Magnitude,Mean,RMS}Waveform  1  int8           as above
//   KR{Max,Mean,RMS}Waveform     4    float                 as above (legacy)
//
// The rectified and legacy classes store one value; their negative curve is
// minus the positive one. Fixed-point values are value x 32767 (or 127),
// rounded, so -1.0 is -32767 and the type's lowest code is never written.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "KROObject.h"
#include "KRORange.h"

using KROData = std::vector<std::uint8_t>;

class KROWaveform : public KROObject {
    KRO_DECLARE_CLASS(KROWaveform)

public:
    // Frames summarised by one entry.
    static constexpr std::uint64_t framesPerEntry = 256;

    // A new empty table of the registered class of that name; none for a
    // name that is not an overview class.
    static std::shared_ptr<KROWaveform> waveformWithClassName(const std::string& name);

    // What the class answers about itself (virtual, since C++ has no virtual
    // static functions): bytes of an entry, and the values of one block.
    virtual std::size_t entrySize() const { return 0; }
    virtual float positiveValueForBuffer(const float* samples, std::size_t count) const;
    virtual float negativeValueForBuffer(const float* samples, std::size_t count) const;

    // "KROMinMaxWaveform (length = 40)".
    std::string description() const override;

    // Zeroes every byte; the length stays.
    void clear();
    // Reverses the byte order of every entry; only legacy tables have
    // multi-byte entries that a reader of the other order must turn.
    virtual void swap() {}
    std::uint64_t length() const { return table_.size(); }
    // New bytes read as zero.
    void setLength(std::uint64_t length) { table_.resize(length); }
    std::uint64_t numberOfEntries() const;
    void setNumberOfEntries(std::uint64_t count) { setLength(count * entrySize()); }
    const KROData& table() const { return table_; }
    void setTable(KROData table) { table_ = std::move(table); }

    // Bounded reads of length entries from index (which may be negative):
    // whatever lies outside the table reads as 0. A read of length 0 leaves
    // the destination untouched.
    void getPositiveValues(float* values, std::int64_t index, std::uint64_t length) const;
    void getNegativeValues(float* values, std::int64_t index, std::uint64_t length) const;
    // Bounded writes; entries outside the table are dropped. The values are
    // clipped and scaled in place, so the caller's array changes.
    void setPositiveValues(float* values, std::int64_t index, std::uint64_t length);
    void setNegativeValues(float* values, std::int64_t index, std::uint64_t length);

    // Unchecked primitives over entries; the base does nothing.
    virtual void getPositiveValues(float* values, NSLongRange range) const;
    virtual void getNegativeValues(float* values, NSLongRange range) const;
    virtual void setPositiveValues(float* values, NSLongRange range);
    virtual void setNegativeValues(float* values, NSLongRange range);

    // Sizes the table for the frames of one channel and fills every entry
    // with the class's reduction of its block; the last block may be short.
    void buildFromSamples(const float* samples, std::uint64_t frames);

protected:
    KROData table_;
};

// Maximum and minimum of each block as signed 16-bit values.
class KROMinMaxWaveform : public KROWaveform {
    KRO_DECLARE_CLASS(KROMinMaxWaveform)

public:
    std::size_t entrySize() const override { return 4; }
    float positiveValueForBuffer(const float* samples, std::size_t count) const override;
    float negativeValueForBuffer(const float* samples, std::size_t count) const override;
    using KROWaveform::getNegativeValues;
    using KROWaveform::getPositiveValues;
    using KROWaveform::setNegativeValues;
    using KROWaveform::setPositiveValues;
    void getPositiveValues(float* values, NSLongRange range) const override;
    void getNegativeValues(float* values, NSLongRange range) const override;
    void setPositiveValues(float* values, NSLongRange range) override;
    void setNegativeValues(float* values, NSLongRange range) override;
};

// The same in signed 8-bit values.
class KROSmallMinMaxWaveform : public KROWaveform {
    KRO_DECLARE_CLASS(KROSmallMinMaxWaveform)

public:
    std::size_t entrySize() const override { return 2; }
    float positiveValueForBuffer(const float* samples, std::size_t count) const override;
    float negativeValueForBuffer(const float* samples, std::size_t count) const override;
    using KROWaveform::getNegativeValues;
    using KROWaveform::getPositiveValues;
    using KROWaveform::setNegativeValues;
    using KROWaveform::setPositiveValues;
    void getPositiveValues(float* values, NSLongRange range) const override;
    void getNegativeValues(float* values, NSLongRange range) const override;
    void setPositiveValues(float* values, NSLongRange range) override;
    void setNegativeValues(float* values, NSLongRange range) override;
};

// One signed 16-bit value; the negative curve mirrors it. Kept: values above
// 1.0 are not clipped before the conversion (they saturate at the type's
// limit), unlike the 8-bit twin; stored tables depend on it.
class KRORectifiedWaveform : public KROWaveform {
    KRO_DECLARE_CLASS(KRORectifiedWaveform)

public:
    std::size_t entrySize() const override { return 2; }
    float negativeValueForBuffer(const float* samples, std::size_t count) const override;
    using KROWaveform::getNegativeValues;
    using KROWaveform::getPositiveValues;
    using KROWaveform::setPositiveValues;
    void getPositiveValues(float* values, NSLongRange range) const override;
    void getNegativeValues(float* values, NSLongRange range) const override;
    void setPositiveValues(float* values, NSLongRange range) override;
};

class KROMagnitudeWaveform : public KRORectifiedWaveform {
    KRO_DECLARE_CLASS(KROMagnitudeWaveform)

public:
    float positiveValueForBuffer(const float* samples, std::size_t count) const override;
};

class KROMeanWaveform : public KRORectifiedWaveform {
    KRO_DECLARE_CLASS(KROMeanWaveform)

public:
    float positiveValueForBuffer(const float* samples, std::size_t count) const override;
};

class KRORMSWaveform : public KRORectifiedWaveform {
    KRO_DECLARE_CLASS(KRORMSWaveform)

public:
    float positiveValueForBuffer(const float* samples, std::size_t count) const override;
};

// One signed 8-bit value, clipped to [-1, 1] before scaling.
class KROSmallRectifiedWaveform : public KROWaveform {
    KRO_DECLARE_CLASS(KROSmallRectifiedWaveform)

public:
    std::size_t entrySize() const override { return 1; }
    float negativeValueForBuffer(const float* samples, std::size_t count) const override;
    using KROWaveform::getNegativeValues;
    using KROWaveform::getPositiveValues;
    using KROWaveform::setPositiveValues;
    void getPositiveValues(float* values, NSLongRange range) const override;
    void getNegativeValues(float* values, NSLongRange range) const override;
    void setPositiveValues(float* values, NSLongRange range) override;
};

class KROSmallMagnitudeWaveform : public KROSmallRectifiedWaveform {
    KRO_DECLARE_CLASS(KROSmallMagnitudeWaveform)

public:
    float positiveValueForBuffer(const float* samples, std::size_t count) const override;
};

class KROSmallMeanWaveform : public KROSmallRectifiedWaveform {
    KRO_DECLARE_CLASS(KROSmallMeanWaveform)

public:
    float positiveValueForBuffer(const float* samples, std::size_t count) const override;
};

class KROSmallRMSWaveform : public KROSmallRectifiedWaveform {
    KRO_DECLARE_CLASS(KROSmallRMSWaveform)

public:
    float positiveValueForBuffer(const float* samples, std::size_t count) const override;
};

// One 32-bit float per entry. Kept: its writer is setPositiveValuesFromRange,
// not an override of setPositiveValues, so a generic writer leaves a legacy
// table as it is; legacy tables grow only through appendAnalysisOfBuffer.
class KROLegacyWaveform : public KROWaveform {
    KRO_DECLARE_CLASS(KROLegacyWaveform)

public:
    std::size_t entrySize() const override { return 4; }
    float negativeValueForBuffer(const float* samples, std::size_t count) const override;
    void swap() override;
    using KROWaveform::getNegativeValues;
    using KROWaveform::getPositiveValues;
    void getPositiveValues(float* values, NSLongRange range) const override;
    void getNegativeValues(float* values, NSLongRange range) const override;
    // A plain copy of the floats into the entries of the range.
    void setPositiveValuesFromRange(const float* values, NSLongRange range);
    // Appends one float for each block of 256 samples, the last block shorter.
    void appendAnalysisOfBuffer(const float* samples, std::uint64_t count);
};

class KRMaxWaveform : public KROLegacyWaveform {
    KRO_DECLARE_CLASS(KRMaxWaveform)

public:
    float positiveValueForBuffer(const float* samples, std::size_t count) const override;
};

class KRMeanWaveform : public KROLegacyWaveform {
    KRO_DECLARE_CLASS(KRMeanWaveform)

public:
    float positiveValueForBuffer(const float* samples, std::size_t count) const override;
};

class KRRMSWaveform : public KROLegacyWaveform {
    KRO_DECLARE_CLASS(KRRMSWaveform)

public:
    float positiveValueForBuffer(const float* samples, std::size_t count) const override;
};

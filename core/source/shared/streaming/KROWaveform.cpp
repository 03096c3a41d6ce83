#include "KROWaveform.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "KROClassRegistry.h"
#include "KROStringWithFormat.h"
#include "KROVectorOps.h"

KRO_REGISTER_CLASS(KROWaveform, KROObject)
KRO_REGISTER_CLASS(KROMinMaxWaveform, KROWaveform)
KRO_REGISTER_CLASS(KROSmallMinMaxWaveform, KROWaveform)
KRO_REGISTER_CLASS(KRORectifiedWaveform, KROWaveform)
KRO_REGISTER_CLASS(KROMagnitudeWaveform, KRORectifiedWaveform)
KRO_REGISTER_CLASS(KROMeanWaveform, KRORectifiedWaveform)
KRO_REGISTER_CLASS(KRORMSWaveform, KRORectifiedWaveform)
KRO_REGISTER_CLASS(KROSmallRectifiedWaveform, KROWaveform)
KRO_REGISTER_CLASS(KROSmallMagnitudeWaveform, KROSmallRectifiedWaveform)
KRO_REGISTER_CLASS(KROSmallMeanWaveform, KROSmallRectifiedWaveform)
KRO_REGISTER_CLASS(KROSmallRMSWaveform, KROSmallRectifiedWaveform)
KRO_REGISTER_CLASS(KROLegacyWaveform, KROWaveform)
KRO_REGISTER_CLASS(KRMaxWaveform, KROLegacyWaveform)
KRO_REGISTER_CLASS(KRMeanWaveform, KROLegacyWaveform)
KRO_REGISTER_CLASS(KRRMSWaveform, KROLegacyWaveform)

namespace {

constexpr float kScale16 = 32767.0f;
constexpr float kScale8 = 127.0f;

// Fixed-point values of type T at every stride-th T from the byte offset,
// divided by the scale.
template <typename T>
void readFixed(const KROData& table, std::size_t byteOffset, std::size_t stride, float scale,
               float* values, std::uint64_t count) {
    const auto* entries = table.data() + byteOffset;
    for (std::uint64_t i = 0; i < count; ++i) {
        T value;
        std::memcpy(&value, entries + i * stride * sizeof(T), sizeof(T));
        values[i] = float(value);
    }
    kro_vsdiv(values, scale, values, count);
}

// Scales the values in place, clipped first when asked, and stores them
// rounded to the nearest fixed-point value; beyond the type's range they
// saturate.
template <typename T>
void writeFixed(KROData& table, std::size_t byteOffset, std::size_t stride, float scale, bool clip,
                float* values, std::uint64_t count) {
    if (clip) {
        kro_vclip(values, -1.0f, 1.0f, values, count);
    }
    kro_vsmul(values, scale, values, count);
    auto* entries = table.data() + byteOffset;
    for (std::uint64_t i = 0; i < count; ++i) {
        const float rounded =
            std::clamp(std::nearbyint(values[i]), float(std::numeric_limits<T>::min()),
                       float(std::numeric_limits<T>::max()));
        const T value = static_cast<T>(rounded);
        std::memcpy(entries + i * stride * sizeof(T), &value, sizeof(T));
    }
}

void negate(float* values, std::uint64_t count) {
    kro_vneg(values, values, count);
}

} // namespace

// ---- KROWaveform

std::shared_ptr<KROWaveform> KROWaveform::waveformWithClassName(const std::string& name) {
    const KROClassRegistry& registry = KROClassRegistry::sharedRegistry();
    if (!registry.isKindOfClass(name, staticClassName())) {
        return nullptr;
    }
    return std::dynamic_pointer_cast<KROWaveform>(registry.makeObject(name));
}

float KROWaveform::positiveValueForBuffer(const float* /*samples*/, std::size_t /*count*/) const {
    return 0.0f;
}

float KROWaveform::negativeValueForBuffer(const float* /*samples*/, std::size_t /*count*/) const {
    return 0.0f;
}

std::string KROWaveform::description() const {
    return KROStringWithFormatArguments("%@ (length = %ld)", className(),
                                        static_cast<long>(length()));
}

void KROWaveform::clear() {
    std::fill(table_.begin(), table_.end(), 0);
}

std::uint64_t KROWaveform::numberOfEntries() const {
    const std::size_t size = entrySize();
    return size == 0 ? 0 : length() / size;
}

namespace {

// The part of a request of length entries at index that lies inside a table
// of n entries: where it starts in the caller's array and in the table.
struct Clamped {
    std::uint64_t offset = 0;
    NSLongRange range{};
    bool inside = false;
};

Clamped clampToTable(std::int64_t index, std::uint64_t length, std::uint64_t entries) {
    const auto n = static_cast<std::int64_t>(entries);
    const auto wanted = static_cast<std::int64_t>(length);
    if (index + wanted < 0 || index > n) {
        return {};
    }
    std::int64_t count = std::min(wanted, n - index);
    Clamped clamped;
    if (index < 0) {
        count += index;
        clamped.offset = static_cast<std::uint64_t>(-index);
        index = 0;
    }
    clamped.range = NSMakeLongRange(static_cast<std::uint64_t>(index),
                                    static_cast<std::uint64_t>(std::max<std::int64_t>(count, 0)));
    clamped.inside = true;
    return clamped;
}

} // namespace

void KROWaveform::getPositiveValues(float* values, std::int64_t index, std::uint64_t length) const {
    if (length == 0) {
        return;
    }
    std::fill_n(values, length, 0.0f);
    const Clamped clamped = clampToTable(index, length, numberOfEntries());
    if (clamped.inside) {
        getPositiveValues(values + clamped.offset, clamped.range);
    }
}

void KROWaveform::getNegativeValues(float* values, std::int64_t index, std::uint64_t length) const {
    if (length == 0) {
        return;
    }
    std::fill_n(values, length, 0.0f);
    const Clamped clamped = clampToTable(index, length, numberOfEntries());
    if (clamped.inside) {
        getNegativeValues(values + clamped.offset, clamped.range);
    }
}

void KROWaveform::setPositiveValues(float* values, std::int64_t index, std::uint64_t length) {
    const Clamped clamped = clampToTable(index, length, numberOfEntries());
    if (length != 0 && clamped.inside) {
        setPositiveValues(values + clamped.offset, clamped.range);
    }
}

void KROWaveform::setNegativeValues(float* values, std::int64_t index, std::uint64_t length) {
    const Clamped clamped = clampToTable(index, length, numberOfEntries());
    if (length != 0 && clamped.inside) {
        setNegativeValues(values + clamped.offset, clamped.range);
    }
}

void KROWaveform::getPositiveValues(float* /*values*/, NSLongRange /*range*/) const {}
void KROWaveform::getNegativeValues(float* /*values*/, NSLongRange /*range*/) const {}
void KROWaveform::setPositiveValues(float* /*values*/, NSLongRange /*range*/) {}
void KROWaveform::setNegativeValues(float* /*values*/, NSLongRange /*range*/) {}

void KROWaveform::buildFromSamples(const float* samples, std::uint64_t frames) {
    setNumberOfEntries((frames + framesPerEntry - 1) / framesPerEntry);
    for (std::uint64_t entry = 0, frame = 0; frame < frames; ++entry, frame += framesPerEntry) {
        const auto count = static_cast<std::size_t>(std::min(framesPerEntry, frames - frame));
        float positive = positiveValueForBuffer(samples + frame, count);
        float negative = negativeValueForBuffer(samples + frame, count);
        setPositiveValues(&positive, NSMakeLongRange(entry, 1));
        setNegativeValues(&negative, NSMakeLongRange(entry, 1));
    }
}

// ---- Min-max tables

float KROMinMaxWaveform::positiveValueForBuffer(const float* samples, std::size_t count) const {
    return kro_maxv(samples, count);
}

float KROMinMaxWaveform::negativeValueForBuffer(const float* samples, std::size_t count) const {
    return kro_minv(samples, count);
}

void KROMinMaxWaveform::getPositiveValues(float* values, NSLongRange range) const {
    readFixed<std::int16_t>(table_, range.location * 4, 2, kScale16, values, range.length);
}

void KROMinMaxWaveform::getNegativeValues(float* values, NSLongRange range) const {
    readFixed<std::int16_t>(table_, range.location * 4 + 2, 2, kScale16, values, range.length);
}

void KROMinMaxWaveform::setPositiveValues(float* values, NSLongRange range) {
    writeFixed<std::int16_t>(table_, range.location * 4, 2, kScale16, true, values, range.length);
}

void KROMinMaxWaveform::setNegativeValues(float* values, NSLongRange range) {
    writeFixed<std::int16_t>(table_, range.location * 4 + 2, 2, kScale16, true, values,
                             range.length);
}

float KROSmallMinMaxWaveform::positiveValueForBuffer(const float* samples,
                                                     std::size_t count) const {
    return kro_maxv(samples, count);
}

float KROSmallMinMaxWaveform::negativeValueForBuffer(const float* samples,
                                                     std::size_t count) const {
    return kro_minv(samples, count);
}

void KROSmallMinMaxWaveform::getPositiveValues(float* values, NSLongRange range) const {
    readFixed<std::int8_t>(table_, range.location * 2, 2, kScale8, values, range.length);
}

void KROSmallMinMaxWaveform::getNegativeValues(float* values, NSLongRange range) const {
    readFixed<std::int8_t>(table_, range.location * 2 + 1, 2, kScale8, values, range.length);
}

void KROSmallMinMaxWaveform::setPositiveValues(float* values, NSLongRange range) {
    writeFixed<std::int8_t>(table_, range.location * 2, 2, kScale8, true, values, range.length);
}

void KROSmallMinMaxWaveform::setNegativeValues(float* values, NSLongRange range) {
    writeFixed<std::int8_t>(table_, range.location * 2 + 1, 2, kScale8, true, values, range.length);
}

// ---- Rectified tables

float KRORectifiedWaveform::negativeValueForBuffer(const float* samples, std::size_t count) const {
    return -positiveValueForBuffer(samples, count);
}

void KRORectifiedWaveform::getPositiveValues(float* values, NSLongRange range) const {
    readFixed<std::int16_t>(table_, range.location * 2, 1, kScale16, values, range.length);
}

void KRORectifiedWaveform::getNegativeValues(float* values, NSLongRange range) const {
    getPositiveValues(values, range);
    negate(values, range.length);
}

void KRORectifiedWaveform::setPositiveValues(float* values, NSLongRange range) {
    writeFixed<std::int16_t>(table_, range.location * 2, 1, kScale16, false, values, range.length);
}

float KROMagnitudeWaveform::positiveValueForBuffer(const float* samples, std::size_t count) const {
    return kro_maxmgv(samples, count);
}

float KROMeanWaveform::positiveValueForBuffer(const float* samples, std::size_t count) const {
    return kro_meamgv(samples, count);
}

float KRORMSWaveform::positiveValueForBuffer(const float* samples, std::size_t count) const {
    return kro_rmsqv(samples, count);
}

float KROSmallRectifiedWaveform::negativeValueForBuffer(const float* samples,
                                                        std::size_t count) const {
    return -positiveValueForBuffer(samples, count);
}

void KROSmallRectifiedWaveform::getPositiveValues(float* values, NSLongRange range) const {
    readFixed<std::int8_t>(table_, range.location, 1, kScale8, values, range.length);
}

void KROSmallRectifiedWaveform::getNegativeValues(float* values, NSLongRange range) const {
    getPositiveValues(values, range);
    negate(values, range.length);
}

void KROSmallRectifiedWaveform::setPositiveValues(float* values, NSLongRange range) {
    writeFixed<std::int8_t>(table_, range.location, 1, kScale8, true, values, range.length);
}

float KROSmallMagnitudeWaveform::positiveValueForBuffer(const float* samples,
                                                        std::size_t count) const {
    return kro_maxmgv(samples, count);
}

float KROSmallMeanWaveform::positiveValueForBuffer(const float* samples, std::size_t count) const {
    return kro_meamgv(samples, count);
}

float KROSmallRMSWaveform::positiveValueForBuffer(const float* samples, std::size_t count) const {
    return kro_rmsqv(samples, count);
}

// ---- Legacy tables

float KROLegacyWaveform::negativeValueForBuffer(const float* samples, std::size_t count) const {
    return -positiveValueForBuffer(samples, count);
}

void KROLegacyWaveform::swap() {
    for (std::size_t at = 0; at + 4 <= table_.size(); at += 4) {
        std::reverse(table_.begin() + std::ptrdiff_t(at), table_.begin() + std::ptrdiff_t(at + 4));
    }
}

void KROLegacyWaveform::getPositiveValues(float* values, NSLongRange range) const {
    std::memcpy(values, table_.data() + range.location * 4, range.length * sizeof(float));
}

void KROLegacyWaveform::getNegativeValues(float* values, NSLongRange range) const {
    getPositiveValues(values, range);
    negate(values, range.length);
}

void KROLegacyWaveform::setPositiveValuesFromRange(const float* values, NSLongRange range) {
    std::memcpy(table_.data() + range.location * 4, values, range.length * sizeof(float));
}

void KROLegacyWaveform::appendAnalysisOfBuffer(const float* samples, std::uint64_t count) {
    for (std::uint64_t at = 0; at < count; at += framesPerEntry) {
        const float value =
            positiveValueForBuffer(samples + at, std::size_t(std::min(framesPerEntry, count - at)));
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(&value);
        table_.insert(table_.end(), bytes, bytes + sizeof(float));
    }
}

float KRMaxWaveform::positiveValueForBuffer(const float* samples, std::size_t count) const {
    return kro_maxmgv(samples, count);
}

float KRMeanWaveform::positiveValueForBuffer(const float* samples, std::size_t count) const {
    return kro_meamgv(samples, count);
}

float KRRMSWaveform::positiveValueForBuffer(const float* samples, std::size_t count) const {
    return kro_rmsqv(samples, count);
}

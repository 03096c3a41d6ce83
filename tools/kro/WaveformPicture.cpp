#include "WaveformPicture.h"

#include <png.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <vector>

#include "KROWaveform.h"

namespace {

using Pixel = std::array<std::uint8_t, 3>;
constexpr Pixel kBackground{255, 255, 255};
constexpr Pixel kAxis{200, 200, 200};
constexpr Pixel kWave{20, 60, 160};

// Whole overview entries per read, about a second at 48 kHz.
constexpr std::uint64_t kReadFrames = 188 * KROWaveform::framesPerEntry;

// One min-max table per channel over all of the file.
std::vector<KROMinMaxWaveform> channelTables(KROAudioFileReader& reader, std::string& message) {
    const auto channels = static_cast<std::uint32_t>(reader.numberOfChannels());
    std::vector<KROMinMaxWaveform> tables(channels);
    auto block = KROAudioBufferList::bufferListWithChannels(channels, kReadFrames);
    for (std::uint64_t frame = 0; frame < reader.frames(); frame += kReadFrames) {
        block->setFrames(std::min(kReadFrames, reader.frames() - frame));
        KROErrorPtr error;
        if (!reader.getAudio(*block, std::int64_t(frame), &error)) {
            message = error ? error->localizedDescription() : "The file could not be read.";
            return {};
        }
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            KROMinMaxWaveform piece;
            piece.buildFromSamples(block->channel(channel), block->frames());
            KROData table = tables[channel].table();
            table.insert(table.end(), piece.table().begin(), piece.table().end());
            tables[channel].setTable(std::move(table));
        }
    }
    return tables;
}

// Rows of RGB pixels into the open file; false when libpng gives up.
bool encodePNG(FILE* file, const Pixel* pixels, std::uint32_t width, std::uint32_t height) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info || setjmp(png_jmpbuf(png)) != 0) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (std::uint32_t y = 0; y < height; ++y) {
        png_write_row(png, pixels[std::size_t(y) * width].data());
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

} // namespace

std::shared_ptr<KROWaveformBuffer> waveformColumns(KROAudioFileReader& reader,
                                                   std::uint32_t columns, std::string& message) {
    const std::vector<KROMinMaxWaveform> tables = channelTables(reader, message);
    if (tables.empty()) {
        return nullptr;
    }
    auto buffer = std::make_shared<KROWaveformBuffer>();
    if (!buffer->initWithChannels(std::uint32_t(tables.size()), columns) ||
        !buffer->setFrames(columns)) {
        message = "There is not enough memory for the picture.";
        return nullptr;
    }
    const std::uint64_t entries = tables.front().numberOfEntries();
    std::vector<float> values;
    for (std::uint32_t channel = 0; channel < tables.size(); ++channel) {
        for (std::uint32_t column = 0; column < columns; ++column) {
            const std::uint64_t first = entries * column / columns;
            const std::uint64_t end = std::max(entries * (column + 1) / columns, first + 1);
            values.assign(end - first, 0.0f);
            tables[channel].getPositiveValues(values.data(), std::int64_t(first), end - first);
            buffer->setPositiveValue(*std::max_element(values.begin(), values.end()), column,
                                     channel);
            tables[channel].getNegativeValues(values.data(), std::int64_t(first), end - first);
            buffer->setNegativeValue(*std::min_element(values.begin(), values.end()), column,
                                     channel);
        }
    }
    return buffer;
}

bool writeWaveformPicture(KROWaveformBuffer& columns, std::uint32_t height,
                          const std::filesystem::path& path, std::string& message) {
    const auto width = static_cast<std::uint32_t>(columns.frames());
    const std::uint32_t channels = std::max(columns.numberOfChannels(), 1u);
    std::vector<Pixel> pixels(std::size_t(width) * height, kBackground);
    const std::uint32_t lane = height / channels;
    for (std::uint32_t channel = 0; channel < columns.numberOfChannels(); ++channel) {
        const double middle = channel * lane + (lane - 1) / 2.0;
        const double half = (lane - 1) / 2.0;
        const auto row = [&](float value) {
            return std::uint32_t(std::lround(middle - std::clamp(value, -1.0f, 1.0f) * half));
        };
        for (std::uint32_t x = 0; x < width; ++x) {
            pixels[row(0.0f) * width + x] = kAxis;
            const std::uint32_t top = row(columns.positiveValueAtFrame(x, channel));
            const std::uint32_t bottom = row(columns.negativeValueAtFrame(x, channel));
            for (std::uint32_t y = std::min(top, bottom); y <= std::max(top, bottom); ++y) {
                pixels[y * width + x] = kWave;
            }
        }
    }
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) {
        message = "The picture " + path.string() + " could not be created.";
        return false;
    }
    const bool written = encodePNG(file, pixels.data(), width, height);
    const bool closed = std::fclose(file) == 0;
    if (!written || !closed) {
        std::filesystem::remove(path);
        message = "The picture " + path.string() + " could not be written.";
        return false;
    }
    return true;
}

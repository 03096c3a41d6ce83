// The waveform picture of `kro overview`: for each display column the
// largest and smallest value of the audio it covers, drawn as a vertical
// line in one lane per channel, written as a PNG file through libpng.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "KROAudioFileReader.h"
#include "KROWaveformBuffer.h"

// Columns of min and max, one pair of curves per channel, from min-max
// overview tables built over the whole file.
std::shared_ptr<KROWaveformBuffer> waveformColumns(KROAudioFileReader& reader,
                                                   std::uint32_t columns, std::string& message);

// Draws the columns on white, lanes stacked from the first channel down.
bool writeWaveformPicture(KROWaveformBuffer& columns, std::uint32_t height,
                          const std::filesystem::path& path, std::string& message);

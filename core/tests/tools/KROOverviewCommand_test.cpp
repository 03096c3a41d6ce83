// `kro overview`: the picture read back pixel by pixel through libpng.
#include <gtest/gtest.h>

#include <png.h>
#include <sndfile.h>

#include <array>
#include <cmath>
#include <vector>

#include "../util/KROScratchDirectory.h"
#include "KROTestCommand.h"

namespace {

using Pixel = std::array<std::uint8_t, 3>;
constexpr Pixel kBackground{255, 255, 255};
constexpr Pixel kAxis{200, 200, 200};
constexpr Pixel kWave{20, 60, 160};

// Left: a 0.8 sine for two seconds, then silence; right: 0.5 throughout.
void writeTestFile(const std::filesystem::path& path) {
    std::vector<float> interleaved;
    for (int frame = 0; frame < 4 * 48000; ++frame) {
        const float left = frame < 2 * 48000 ? 0.8f * float(std::sin(frame * 0.05)) : 0.0f;
        interleaved.insert(interleaved.end(), {left, 0.5f});
    }
    SF_INFO info{0, 48000, 2, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, 0};
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr);
    sf_writef_float(file, interleaved.data(), sf_count_t(interleaved.size() / 2));
    sf_close(file);
}

struct Picture {
    std::uint32_t width = 0, height = 0;
    std::vector<Pixel> pixels;
    Pixel at(std::uint32_t x, std::uint32_t y) const { return pixels[y * width + x]; }
};

Picture readPicture(const std::filesystem::path& path) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    Picture picture;
    if (png_image_begin_read_from_file(&image, path.c_str())) {
        image.format = PNG_FORMAT_RGB;
        picture.width = image.width;
        picture.height = image.height;
        picture.pixels.resize(std::size_t(image.width) * image.height);
        png_image_finish_read(&image, nullptr, picture.pixels.data(), 0, nullptr);
    }
    return picture;
}

} // namespace

// 100 x 100: the left lane fills rows 5 to 44 under the sine and shrinks to
// its middle row in the silence; the right lane is one row at 0.5 above its
// axis.
TEST(KROOverviewCommand, DrawsMinimumAndMaximumPerColumnInALanePerChannel) {
    KROScratchDirectory directory;
    writeTestFile(directory / "take.wav");
    const auto drawn =
        KRORunCommand(std::string(KRO_TOOL) + " overview " + (directory / "take.wav").string() +
                      " " + (directory / "take.png").string() + " --width 100 --height 100 2>&1");
    ASSERT_EQ(drawn.status, 0) << drawn.output;
    const Picture picture = readPicture(directory / "take.png");
    ASSERT_EQ(picture.width, 100u);
    ASSERT_EQ(picture.height, 100u);
    struct Case {
        std::uint32_t x, y;
        Pixel expected;
    };
    const Case cases[] = {
        {25, 4, kBackground}, {25, 5, kWave},        {25, 44, kWave},       {25, 45, kBackground},
        {75, 25, kWave},      {75, 23, kBackground}, {75, 27, kBackground}, {10, 62, kWave},
        {90, 62, kWave},      {90, 61, kBackground}, {90, 75, kAxis},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.x) + "," + std::to_string(c.y));
        EXPECT_EQ(picture.at(c.x, c.y), c.expected);
    }
}

// Disc images: round trips, md5sum digests, the record layout, damage by code.
#include <gtest/gtest.h>

#include "KROAudioFileDDPContent.h"
#include "KROAudioTestSupport.h"
#include "KROError.h"
#include "KROFileTestSupport.h"
#include "KROTestCommand.h"

namespace fs = std::filesystem;

namespace {

// Six seconds: track 1 from 0 to 2 s, track 2 from 2 to 4 s with an index
// at 3 s, silence, track 3 from 4.48 to 6 s.
constexpr std::uint64_t imageFrames = 6 * 44100;

std::shared_ptr<KROAudioLabel> track(double start, double end, bool scms, const char* isrc,
                                     const char* name, const char* performer) {
    auto label = testLabel("track", start, end - start);
    label->setValueForUndefinedKey(KROPropertyList(scms), "scms");
    label->setValueForUndefinedKey(KROPropertyList(isrc), "isrc");
    label->setValueForUndefinedKey(KROPropertyList("take 1"), "userText");
    label->setValueForUndefinedKey(KROPropertyList(name), "name");
    if (performer) {
        label->setValueForUndefinedKey(KROPropertyList(performer), "performer");
    }
    return label;
}

KROAudioFileContent::Labels imageLabels(bool withCDText) {
    return {track(0, 2, true, "ZZXXX2600001", withCDText ? "Opening" : "Track 1",
                  withCDText ? "Ann Ça" : nullptr),
            track(2, 4, false, "ZZXXX2600002", withCDText ? "A twelve chr" : "Track 2",
                  withCDText ? "Bo" : nullptr),
            testLabel("index", 3, 0),
            track(4.48, 6, false, "ZZXXX2600003", withCDText ? "Closing" : "Track 3",
                  withCDText ? "Cy" : nullptr)};
}

// Writes an image at path; setUp adds labels, metadata and settings.
std::shared_ptr<KROAudioFileDDPContent>
writeImage(const fs::path& path, const KROAudioBufferList& audio,
           const std::function<void(KROAudioFileDDPContent&)>& setUp) {
    auto content = std::make_shared<KROAudioFileDDPContent>();
    content->setWritingDirectory(path.parent_path());
    setUp(*content);
    KROErrorPtr error;
    EXPECT_TRUE(content->beginWrite(&error) && content->writeAudio(audio, &error) &&
                content->endWrite(&error))
        << (error ? error->description() : "");
    fs::rename(content->URL(), path);
    return content;
}

void setUpAlbum(KROAudioFileDDPContent& content, bool withCDText) {
    content.labels() = imageLabels(withCDText);
    content.metadata().setObjectForKey("ean/upc", "0123456789012");
    content.metadata().setObjectForKey("masterID",
                                       "MASTER-0001-ABCDEFGHIJKLMNOPQRSTUVWXYZ-123456789");
    content.metadata().setObjectForKey("ddpUserText", "Replication notes");
    content.metadata().setObjectForKey("isrc", "ZZXXX2600000");
    content.metadata().setObjectForKey("title", "Album");
    content.setIncludeCDTEXT(withCDText);
}

std::shared_ptr<KROAudioFileDDPContent> parsedImage(const fs::path& path,
                                                    KROErrorPtr* error = nullptr) {
    auto content = std::make_shared<KROAudioFileDDPContent>();
    content->setURL(path);
    return content->parse(error) ? content : nullptr;
}

std::string fileText(const fs::path& path) {
    const KROData bytes = KROReadTestFile(path);
    return std::string(bytes.begin(), bytes.end());
}

// Reads an image as the DDP 2.0 records lay it out: each map entry of 128
// bytes names a stream (VVVMS0 for descriptions, VVVMD0 for the audio, whose
// length counts 2352-byte sectors); each subcode entry of 64 bytes gives
// track, index and the absolute time as minutes, seconds and 1/75 s; each
// CD-TEXT pack of 18 bytes ends in a CRC-16 (polynomial 0x1021, inverted)
// of its first 16 bytes.
constexpr const char* layoutModel = R"(
import os, sys
d = sys.argv[1]
ms = open(os.path.join(d, 'DDPMS'), 'rb').read()
assert len(ms) % 128 == 0
for i in range(0, len(ms), 128):
    e = ms[i:i + 128].decode('ascii')
    name, length = e[74:91].strip(), int(e[14:22])
    size = os.path.getsize(os.path.join(d, name))
    if e[0:6] == 'VVVMD0':
        assert size == length * 2352, (size, length)
        print('audio', name, length, length * 588)
    else:
        assert e[0:6] == 'VVVMS0' and size == length, (e, size)
        print('stream', name, e[22:42].strip())
pq = open(os.path.join(d, 'PQ_DESCR'), 'rb').read()
for i in range(0, len(pq), 64):
    e = pq[i:i + 64].decode('ascii')
    assert e[0:4] == 'VVVS'
    m, s, f = int(e[10:12]), int(e[12:14]), int(e[14:16])
    print('pq', e[4:6], e[6:8], (m * 60 + s) * 75 + f, e[20:32].strip() or '-')
if os.path.exists(os.path.join(d, 'CDTEXT.BIN')):
    cd = open(os.path.join(d, 'CDTEXT.BIN'), 'rb').read()
    def crc(data):
        r = 0
        for b in data:
            r ^= b << 8
            for _ in range(8):
                r = ((r << 1) ^ 0x1021 if r & 0x8000 else r << 1) & 0xFFFF
        return r ^ 0xFFFF
    packs = [cd[i:i + 18] for i in range(0, len(cd), 18)]
    good = sum(crc(p[:16]) == (p[16] << 8 | p[17]) for p in packs)
    sizes = b''.join(p[4:16] for p in packs if p[0] == 0x8F)
    print('cdtext', len(packs), 'crc', good, 'sequence', [p[2] for p in packs] == list(range(len(packs))),
          'tracks', sizes[2], 'counted', sum(sizes[4:20]))
)";

} // namespace

TEST(KROAudioFileDDPContent, WrittenImagesReadBackEqual) {
    const auto audio = rampBuffer(2, imageFrames, 1.0f / 128);
    for (const bool withCDText : {true, false}) {
        SCOPED_TRACE(withCDText ? "with CD-TEXT" : "without");
        KROTemporaryDirectory directory;
        const fs::path path = directory / "image";
        const auto written = writeImage(path, *audio, [&](KROAudioFileDDPContent& content) {
            setUpAlbum(content, withCDText);
        });
        KROErrorPtr error;
        const auto read = parsedImage(path, &error);
        ASSERT_TRUE(read) << error->description();
        EXPECT_EQ(labelTexts(*read, 75), labelTexts(*written, 75));
        KROPropertyList expected = KROPropertyList::dictionary();
        expected.setObjectForKey("ean/upc", "0123456789012");
        // Read eight bytes early: the last eight characters are lost.
        expected.setObjectForKey("masterID", "MASTER-0001-ABCDEFGHIJKLMNOPQRSTUVWXYZ-1");
        expected.setObjectForKey("userText", "Replication notes");
        expected.setObjectForKey("isrc", "ZZXXX2600000");
        if (withCDText) {
            expected.setObjectForKey("title", "Album");
        }
        EXPECT_EQ(read->metadata(), expected) << read->metadata().description();
        EXPECT_EQ(read->frames(), imageFrames);
        EXPECT_EQ(read->cdFrames(), 450u);
        EXPECT_EQ(samplesOf(*allAudio(*read)), samplesOf(*audio));
        EXPECT_EQ(fs::exists(path / "CDTEXT.BIN"), withCDText);
    }
}

TEST(KROAudioFileDDPContent, LayoutAgreesWithTheRecordModel) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "image";
    const fs::path model = directory / "model.py";
    { std::ofstream(model) << layoutModel; }
    // 500 frames past the last whole sector: the image is padded to 451.
    writeImage(path, *rampBuffer(2, imageFrames + 500, 1.0f / 128),
               [](KROAudioFileDDPContent& content) { setUpAlbum(content, true); });
    const KROCommandResult result =
        KRORunCommand("/usr/bin/python3 " + model.string() + " " + path.string() + " 2>&1");
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(result.output, "stream PQ_DESCR PQ DESCR\n"
                             "stream CDTEXT.BIN CDTEXT\n"
                             "audio image.dat 451 265188\n"
                             "pq 00 00 0 ZZXXX2600000\n"
                             "pq 01 00 0 ZZXXX2600001\n"
                             "pq 01 01 150 ZZXXX2600001\n"
                             "pq 02 01 300 ZZXXX2600002\n"
                             "pq 02 02 375 -\n"
                             "pq 03 00 450 ZZXXX2600003\n"
                             "pq 03 01 486 ZZXXX2600003\n"
                             "pq AA 01 600 -\n"
                             "pq AA 01 600 -\n"
                             "cdtext 13 crc 13 sequence True tracks 3 counted 13\n");
}

TEST(KROAudioFileDDPContent, DigestsAgreeWithMd5sum) {
    struct Case {
        const char* method;
        std::vector<std::string> digested;
        bool masterFile;
    };
    const Case cases[] = {
        {"audioFileOnly", {"image.dat"}, false},
        {"allFiles", {"image.dat", "DDPID", "PQ_DESCR", "CDTEXT.BIN", "DDPMS"}, false},
        {"masterFile", {"image.dat", "DDPID", "PQ_DESCR", "CDTEXT.BIN", "DDPMS"}, true},
    };
    const auto audio = rampBuffer(2, 5000, 1.0f / 128);
    for (const Case& test : cases) {
        SCOPED_TRACE(test.method);
        KROTemporaryDirectory directory;
        const fs::path path = directory / "image";
        writeImage(path, *audio, [&](KROAudioFileDDPContent& content) {
            setUpAlbum(content, true);
            content.setValue(KROPropertyList(test.method), "md5Method");
        });
        std::string list = "filename,md5\n";
        std::size_t digestFiles = 0;
        for (const std::string& name : test.digested) {
            const std::string sum =
                KRORunCommand("md5sum " + (path / name).string()).output.substr(0, 32);
            list += name + "," + sum + "\n";
            if (!test.masterFile) {
                EXPECT_EQ(fileText(path / (name + ".MD5")), sum) << name;
                ++digestFiles;
            }
        }
        EXPECT_EQ(fs::exists(path / "md5.txt"), test.masterFile);
        if (test.masterFile) {
            EXPECT_EQ(fileText(path / "md5.txt"), list);
        }
        std::size_t files = 0;
        for ([[maybe_unused]] const auto& entry : fs::directory_iterator(path)) {
            ++files;
        }
        EXPECT_EQ(files, 5 + digestFiles + (test.masterFile ? 1 : 0));
    }
}

TEST(KROAudioFileDDPContent, DamagedImagesFailWithTheirCodes) {
    struct Case {
        const char* what;
        std::function<void(const fs::path&)> damage;
        std::int64_t code;
    };
    const auto resize = [](const char* name, std::uintmax_t size) {
        return [=](const fs::path& image) { fs::resize_file(image / name, size); };
    };
    const auto remove = [](const char* name) {
        return [=](const fs::path& image) { fs::remove(image / name); };
    };
    // Replaces the text at an offset of a file.
    const auto patch = [](const char* name, std::size_t offset, std::string text) {
        return [=](const fs::path& image) {
            std::fstream file(image / name, std::ios::in | std::ios::out | std::ios::binary);
            file.seekp(std::streamoff(offset));
            file << text;
        };
    };
    const Case cases[] = {
        {"no DDPID", remove("DDPID"), 1},
        {"short DDPID", resize("DDPID", 127), 1},
        {"DDPMS with a partial entry", resize("DDPMS", 200), 2},
        {"no DDPMS names no audio", remove("DDPMS"), 5},
        {"PQ_DESCR with a partial entry", resize("PQ_DESCR", 64 * 3 + 10), 3},
        {"PQ_DESCR shorter than its map entry", resize("PQ_DESCR", 64 * 3), 4},
        {"image.dat a byte short", resize("image.dat", 2352 * 3 - 1), 4},
        {"a sector count that lies", patch("DDPMS", 128 + 14, "       4"), 4},
        {"no image.dat", remove("image.dat"), 5},
        {"no PQ_DESCR", remove("PQ_DESCR"), 5},
        {"a map entry naming nothing", patch("DDPMS", 74, "NOSUCHFILE       "), 5},
        {"an audio length of 0 is not checked", patch("DDPMS", 128 + 14, "       0"), 0},
        {"names in any case",
         [](const fs::path& image) {
             fs::rename(image / "DDPID", image / "ddpid");
             fs::rename(image / "image.dat", image / "IMAGE.DAT");
         },
         0},
        {"malformed numbers and times", patch("PQ_DESCR", 64 * 2 + 4, "x\x01-9zz\xff"), 0},
    };
    const auto audio = rampBuffer(2, 3 * 588, 1.0f / 128);
    for (const Case& test : cases) {
        SCOPED_TRACE(test.what);
        KROTemporaryDirectory directory;
        const fs::path path = directory / "image";
        writeImage(path, *audio, [](KROAudioFileDDPContent& content) {
            content.labels() = {testLabel("track", 0, 0.04)};
        });
        test.damage(path);
        KROErrorPtr error;
        const auto read = parsedImage(path, &error);
        if (test.code == 0) {
            EXPECT_TRUE(read) << error->description();
            continue;
        }
        ASSERT_FALSE(read);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain(), "KROAudioFileDDPContentErrorDomain");
        EXPECT_EQ(error->code(), test.code);
    }
}

TEST(KROAudioFileDDPContent, PregapInTheMapShiftsFrameZero) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "image";
    const auto audio = rampBuffer(2, 10 * 588, 1.0f / 128);
    writeImage(path, *audio, [](KROAudioFileDDPContent&) {});
    // Two numbers of sectors, 1 and 2, before frame 0.
    {
        std::fstream file(path / "DDPMS", std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(128 + 42);
        file << "   1   2";
    }
    const auto read = parsedImage(path);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->pregapFrames(), 3u * 588);
    EXPECT_EQ(read->frames(), 7u * 588);
    const std::vector<float> all = samplesOf(*audio);
    EXPECT_EQ(samplesOf(*allAudio(*read)),
              std::vector<float>(all.begin() + 2 * 3 * 588, all.end()));
}

TEST(KROAudioFileDDPContent, RefusesAnISRCThatIsNotTwelveCharacters) {
    KROAudioFileDDPContent content;
    content.labels() = {testLabel("track", 0, 1, {{"isrc", "ZZXXX260000"}})};
    KROErrorPtr error;
    EXPECT_FALSE(content.beginWrite(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), "KROAudioFileDDPContentErrorDomain");
    EXPECT_EQ(error->code(), 6);
    EXPECT_TRUE(content.URL().empty());
}

TEST(KROAudioFileDDPContent, RecognisesImageDirectoriesOnly) {
    KROTemporaryDirectory directory;
    fs::create_directories(directory / "image");
    fs::create_directories(directory / "other");
    KROWriteTestFile(directory / "image" / "ddpid.txt", KROData(128, ' '));
    KROWriteTestFile(directory / "other" / "notes.txt", KROData(4, ' '));
    KROWriteTestFile(directory / "DDPMS", KROData(128, ' '));
    KROAudioFileDDPContent content;
    EXPECT_TRUE(content.supportsURL(directory / "image"));
    EXPECT_FALSE(content.supportsURL(directory / "other"));
    EXPECT_FALSE(content.supportsURL(directory / "DDPMS"));
    EXPECT_FALSE(content.supportsURL(directory / "none"));
    const auto handler = KROAudioFileContent::fileContentClassForFormat("DDP");
    ASSERT_TRUE(handler);
    EXPECT_TRUE(std::dynamic_pointer_cast<KROAudioFileDDPContent>(handler->makeContent()));
}

TEST(KROAudioFileDDPContent, CDTextPacksNumberTheirStringPositions) {
    // 12 characters and the zero take two packs, the second at position 12;
    // the middle packs of a long string say 15.
    std::uint64_t sequence = 254;
    const KROData packs = KROAudioFileDDPContent::cdTextPacksForType(
        0, {"A twelve chr", std::string(40, 'x')}, sequence);
    ASSERT_EQ(packs.size(), 5u * 18);
    EXPECT_EQ(sequence, 259u);
    const std::vector<std::vector<int>> headers = {{0x80, 0, 254, 0},
                                                   {0x80, 0, 255, 12},
                                                   {0x80, 1, 0, 11},
                                                   {0x80, 1, 1, 15},
                                                   {0x80, 1, 2, 15}};
    for (std::size_t k = 0; k < headers.size(); ++k) {
        SCOPED_TRACE(k);
        EXPECT_EQ((std::vector<int>{packs[k * 18], packs[k * 18 + 1], packs[k * 18 + 2],
                                    packs[k * 18 + 3]}),
                  headers[k]);
    }
    EXPECT_TRUE(KROAudioFileDDPContent::cdTextPacksForType(3, {"", ""}, sequence).empty());
    EXPECT_EQ(sequence, 259u);
}

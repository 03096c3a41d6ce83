// ID3v2 and APE tags both ways against mutagen, and damaged tags read as far as they go.
#include <map>
#include <set>

#include "KROAudioFileChunk.h"
#include "KROAudioMetadataTable.h"
#include "KROLocalizedString.h"
#include "KROLog.h"
#include "KROResources.h"
#include "KROTagTestSupport.h"

namespace fs = std::filesystem;

namespace {

using namespace std::string_literals;

KROData synchsafe(std::size_t size) {
    return KROTestBytes()
        .be32(KROAudioFileContent::encodedID3TagSynchsafeValue(static_cast<std::uint32_t>(size)))
        .data();
}

KROData id3Tag(int version, const KROData& frames) {
    return KROTestBytes()
        .text("ID3")
        .le(version, 1)
        .fill(2)
        .bytes(synchsafe(frames.size()))
        .bytes(frames)
        .data();
}

// A frame of the version with the size its body has.
KROData id3Frame(int version, std::string_view identifier, std::string_view body) {
    KROTestBytes frame;
    frame.text(identifier);
    if (version == 2) {
        frame.be(body.size(), 3);
    } else if (version == 3) {
        frame.be32(body.size()).fill(2);
    } else {
        frame.bytes(synchsafe(body.size())).fill(2);
    }
    return frame.text(body).data();
}

// A 2.3 or 2.4 frame whose size field holds the given value.
KROData frameOfSize(std::string_view identifier, std::uint32_t size, std::string_view body) {
    return KROTestBytes().text(identifier).be32(size).fill(2).text(body).data();
}

KROData concatenated(std::initializer_list<KROData> parts) {
    KROTestBytes bytes;
    for (const KROData& part : parts) {
        bytes.bytes(part);
    }
    return bytes.data();
}

// The metadata of the ID3 tag at the position, or of the APE tag when the
// position is none.
std::shared_ptr<KROTagTestContent> readTag(const fs::path& path,
                                           std::optional<std::uint64_t> position) {
    auto content = std::make_shared<KROTagTestContent>();
    KROFileReader reader;
    EXPECT_TRUE(reader.initWithURL(path));
    content->setFileSize(fs::file_size(path));
    if (position) {
        content->parseID3TagInFile(reader, *position);
    } else {
        content->parseAPETagInFile(reader);
    }
    return content;
}

// "key = value" lines of the metadata, data blocks as their description.
std::string linesOf(const KROPropertyList& metadata) {
    std::string lines;
    for (const auto& [key, value] : *metadata.dictionaryValue()) {
        lines += key + " = " + value.description() + "\n";
    }
    return lines;
}

// Prints what mutagen reads of an ID3 tag, a frame a line, sorted.
constexpr const char* kMutagenReadsID3 = R"(
import sys
from mutagen.id3 import ID3
lines = []
for frame in ID3(sys.argv[1]).values():
    if frame.FrameID == 'APIC':
        lines.append('APIC %s %s' % (frame.mime, frame.data.hex()))
    elif frame.FrameID == 'TCON':
        lines.append('TCON %s' % frame.genres[0])
    else:
        lines.append('%s %s' % (frame.FrameID, frame.text[0]))
print('\n'.join(sorted(lines)))
)";

} // namespace

// Text frames as mutagen writes them keep their terminator; the genre
// number becomes its name, the tempo a number, the picture its bytes.
TEST(KROAudioFileContentTags, ReadsTheID3TagsMutagenWrites) {
    constexpr const char* writer = R"(
import sys
from mutagen.id3 import ID3, TIT2, TPE1, TALB, TCON, TBPM, APIC
tag = ID3()
tag.add(TIT2(encoding=1, text='Tïtle ü'))
tag.add(TPE1(encoding=0, text='Ärtist'))
tag.add(TALB(encoding=3, text='Album ✓'))
tag.add(TCON(encoding=0, text='(17)'))
tag.add(TBPM(encoding=0, text='120'))
tag.add(APIC(encoding=0, mime='image/png', type=3, desc='cover', data=b'\x89PNG\x00\x01'))
open(sys.argv[1], 'wb').close()
tag.save(sys.argv[1], v2_version=int(sys.argv[2]))
)";
    KROTemporaryDirectory directory;
    for (const int version : {3, 4}) {
        SCOPED_TRACE(version);
        const auto path = directory / "tag.id3";
        KRORunPythonScript(directory, writer, path.string() + " " + std::to_string(version));
        EXPECT_EQ(KRORunPythonScript(directory, kMutagenReadsID3, path.string()),
                  "APIC image/png 89504e470001\nTALB Album ✓\nTBPM 120\nTCON Rock\n"
                  "TIT2 Tïtle ü\nTPE1 Ärtist\n");
        EXPECT_EQ(linesOf(readTag(path, 0)->metadata()),
                  "name = Tïtle ü\0\nartist = Ärtist\0\nproduct = Album ✓\0\ngenre = Rock\n"
                  "tempo = 120\npicture = {length = 6, bytes = 0x89504e470001}\n"s);
    }
}

// Version 2.2 read beside mutagen: the two differ where this reader is kept
// as it was. It takes no UTF-16 text, its picture runs on past the frame by
// the bytes it skipped, and it never visits the last ten bytes of a tag.
TEST(KROAudioFileContentTags, ReadsVersion22KeepingItsLimits) {
    const KROData frames = concatenated({
        id3Frame(2, "TT2", "\0Title"s),
        id3Frame(2, "TP1",
                 "\1\xFF\xFE"
                 "A\0r\0t\0"s),
        id3Frame(2, "TCO", "\0(17)"s),
        id3Frame(2, "PIC", "\0PNG\3d\0IMG"s),
        id3Frame(2, "TT3", "\0S"s),
    });
    KROTemporaryDirectory directory;
    const auto path = directory / "v22.id3";
    KROWriteTestFile(path, id3Tag(2, frames));
    EXPECT_EQ(KRORunPythonScript(directory, kMutagenReadsID3, path.string()),
              "APIC image/png 494d47\nTCON Rock\nTIT2 Title\nTIT3 S\nTPE1 Art\n");
    EXPECT_EQ(linesOf(readTag(path, 0)->metadata()),
              "name = Title\ngenre = Rock\n"
              "picture = {length = 10, bytes = 0x494d4754543300000200}\n");
}

// The tag written here as mutagen reads it: text frames with lossy ASCII,
// the picture as JPEG, and the frames that always go out empty dropped.
TEST(KROAudioFileContentTags, WritesID3TagsThatMutagenReads) {
    KROTagTestContent content;
    auto& metadata = content.metadata();
    metadata.setObjectForKey("name", "Title");
    metadata.setObjectForKey("artist", "Ärtist");
    metadata.setObjectForKey("tempo", 120.5);
    metadata.setObjectForKey("genre", "Rock");
    metadata.setObjectForKey("comments", "a comment");
    metadata.setObjectForKey("picture", bytesOf("JPEG"));
    metadata.setObjectForKey("description", "no frame");
    KROAudioFileChunk chunk;
    content.appendID3ToChunk(chunk);
    KROTemporaryDirectory directory;
    const auto path = directory / "written.id3";
    KROWriteTestFile(path, *chunk.data());
    EXPECT_EQ(KRORunPythonScript(directory, kMutagenReadsID3, path.string()),
              "APIC image/jpeg 4a504547\nTBPM 120.5\nTIT2 Title\nTPE1 Artist\n");
    const std::string bytes(chunk.data()->begin(), chunk.data()->end());
    for (const char* empty : {"TCON", "COMM"}) {
        SCOPED_TRACE(empty);
        ASSERT_NE(bytes.find(empty), std::string::npos);
        EXPECT_EQ(bytes.substr(bytes.find(empty) + 4, 6), "\0\0\0\0\0\0"s);
    }
    EXPECT_EQ(linesOf(readTag(path, 0)->metadata()),
              "name = Title\0\nartist = Artist\0\ntempo = 120.5\n"
              "picture = {length = 4, bytes = 0x4a504547}\n"s);
}

// In a little-endian chunk the tag's size lands little-endian, and the reader
// decodes it as wrongly and walks past the tag's end by it.
TEST(KROAudioFileContentTags, TagSizeFollowsTheChunkByteOrder) {
    KROTagTestContent content;
    content.metadata().setObjectForKey("name", "Title");
    KROAudioFileChunk chunk;
    chunk.setByteOrder(KROAudioFileChunk::littleEndian);
    content.appendID3ToChunk(chunk);
    const KROData tag = *chunk.data();
    EXPECT_EQ(KROData(tag.begin() + 6, tag.begin() + 10), (KROData{17, 0, 0, 0}));
    KROTemporaryDirectory directory;
    const auto path = directory / "little.id3";
    KROWriteTestFile(path, concatenated({tag, id3Frame(4, "TPE1", "\3After"s)}));
    EXPECT_EQ(linesOf(readTag(path, 0)->metadata()), "name = Title\0\nartist = After\n"s);
}

// Damaged and unusual tags: what each sets, and never more.
TEST(KROAudioFileContentTags, DamagedID3TagsReadAsFarAsTheyGo) {
    const KROData artist = id3Frame(3, "TPE1", "\0Artist"s);
    struct Case {
        const char* what;
        KROData file;
        std::uint64_t position;
        std::string lines;
    };
    const Case cases[] = {
        {"a tag after other bytes", concatenated({bytesOf("RIFFxyz"), id3Tag(3, artist)}), 7,
         "artist = Artist\n"},
        {"no tag at the position", id3Tag(3, artist), 1, ""},
        {"version 5", id3Tag(5, artist), 0, ""},
        {"text of encoding 2",
         id3Tag(4, concatenated({id3Frame(4, "TIT2", "\2T\0"s), id3Frame(4, "TPE1", "\0Artist"s)})),
         0, "artist = Artist\n"},
        {"malformed UTF-8", id3Tag(4, id3Frame(4, "TIT2", "\3\xC3("s)), 0, ""},
        {"a frame named as a key", id3Tag(3, id3Frame(3, "name", "\0By key"s)), 0,
         "name = By key\n"},
        {"a negative size is stepped over",
         id3Tag(3, concatenated({frameOfSize("TIT2", 0xFFFFFFF0, ""), artist})), 0,
         "artist = Artist\n"},
        {"a size past the file's end",
         id3Tag(3, concatenated({artist, frameOfSize("TIT2", 0x7FFFFFFF, "\0Title"s)})), 0,
         "artist = Artist\n"},
        // Read as synchsafe, 256 is 128: the walk takes 127 letters and goes on
        // from inside the text.
        {"a 2.4 size written plainly",
         id3Tag(4, frameOfSize("TIT2", 256, "\0"s + std::string(255, 'A'))), 0,
         "name = " + std::string(127, 'A') + "\n"},
        {"padding ends the walk", id3Tag(3, concatenated({KROData(10, 0), artist})), 0, ""},
        {"a picture without its zeros", id3Tag(4, id3Frame(4, "APIC", "\0image/png"s)), 0, ""},
        {"UTF-16 without a byte-order mark is big-endian",
         id3Tag(3, id3Frame(3, "TIT2", "\1\0T\0i"s)), 0, "name = Ti\n"},
    };
    KROTemporaryDirectory directory;
    std::vector<std::string> log;
    KROSetLogSink([&log](const std::string& line) { log.push_back(line); });
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        KROWriteTestFile(directory / "tag.id3", c.file);
        EXPECT_EQ(linesOf(readTag(directory / "tag.id3", c.position)->metadata()), c.lines);
    }
    KROSetLogSink({});
    EXPECT_EQ(log, std::vector<std::string>{"found ID3v25 header"});
}

TEST(KROAudioFileContentTags, SynchsafeValues) {
    EXPECT_EQ(KROAudioFileContent::encodedID3TagSynchsafeValue(0x0FFFFFFF), 0x7F7F7F7Fu);
    EXPECT_EQ(KROAudioFileContent::encodedID3TagSynchsafeValue(0x3FFF), 0x7F7Fu);
    EXPECT_EQ(KROAudioFileContent::encodedID3TagSynchsafeValue(200), 0x0148u);
    // As read from the bytes 00 00 02 01 on this little-endian host.
    EXPECT_EQ(KROAudioFileContent::decodedID3TagSynchsafeValue(0x01020000), 0x101u);
    EXPECT_EQ(KROAudioFileContent::decodedID3TagSynchsafeValue(0x7F7F7F7F), 0x0FFFFFFFu);
}

// Genre numbers index the ID3v1 list as mutagen knows it; anything else
// comes back as it stands.
TEST(KROAudioFileContentTags, GenreNumbersName) {
    const std::string mutagenGenres =
        KRORunPythonScript(KROTemporaryDirectory(),
                           "from mutagen._constants import GENRES\nprint('|'.join(GENRES))\n", "");
    const auto genres = KROPropertyList::fromFile(KROResourcePath("ID3Genres.plist"));
    ASSERT_TRUE(genres);
    std::string names;
    for (std::size_t i = 0; i < genres->count(); ++i) {
        names += (i > 0 ? "|" : "") + *genres->objectAtIndex(i)->stringValue();
    }
    EXPECT_EQ(mutagenGenres, names + "\n");
    const std::pair<std::string, std::string> cases[] = {
        {"(17)", "Rock"}, {"17", "Rock"},       {"(17)\0"s, "Rock"},
        {"(0)", "Blues"}, {"Free", "Free"},     {"(9999)", "(9999)"},
        {"17a", "17a"},   {"(17)(18)", "Rock"}, {"()", "Blues"},
    };
    for (const auto& [genre, name] : cases) {
        SCOPED_TRACE(genre);
        EXPECT_EQ(KROAudioFileContent::genreStringForID3GenreNumber(genre), name);
    }
}

// Only id3v24 names count: a key the table names for AIFF alone does not.
TEST(KROAudioFileContentTags, HasID3MetadataLooksAtVersion24Names) {
    KROTagTestContent content;
    EXPECT_FALSE(content.hasID3Metadata());
    content.metadata().setObjectForKey("author", "only AIFF names it");
    EXPECT_FALSE(content.hasID3Metadata());
    content.metadata().setObjectForKey("isrc", "USRC17607839");
    EXPECT_TRUE(content.hasID3Metadata());
}

// An APEv2 tag as mutagen writes it after other bytes: text items by their
// APE name or by key, binary items as data, unknown items left out.
TEST(KROAudioFileContentTags, ReadsTheAPETagsMutagenWrites) {
    constexpr const char* writer = R"(
import sys
from mutagen.apev2 import APEv2, APEValue, BINARY
open(sys.argv[1], 'wb').write(b'\x01' * 100)
tag = APEv2()
tag['Title'] = 'Tïtle'
tag['Artist'] = 'Artist'
tag['BPM'] = '120'
tag['author'] = 'By key'
tag['Unknown'] = 'left out'
tag['Cover Art (Front)'] = APEValue(b'c.jpg\x00JPEG', BINARY)
tag.save(sys.argv[1])
)";
    KROTemporaryDirectory directory;
    const auto path = directory / "tagged.ape";
    KRORunPythonScript(directory, writer, path.string());
    EXPECT_EQ(KRODescriptionsOf(readTag(path, std::nullopt)->metadata()),
              (std::map<std::string, std::string>{
                  {"name", "Tïtle"},
                  {"artist", "Artist"},
                  {"tempo", "120"},
                  {"author", "By key"},
                  {"picture", "{length = 10, bytes = 0x632e6a7067004a504547}"},
              }));
}

namespace {

KROData apeItem(std::uint32_t size, std::uint32_t flags, std::string_view key,
                std::string_view value) {
    return KROTestBytes().le32(size).le32(flags).text(key).fill(1).text(value).data();
}

KROData apeTag(const KROData& items, std::uint32_t count, std::uint32_t tagSize) {
    return KROTestBytes()
        .bytes(items)
        .text("APETAGEX")
        .le32(2000)
        .le32(tagSize)
        .le32(count)
        .fill(12)
        .data();
}

} // namespace

TEST(KROAudioFileContentTags, DamagedAPETagsReadAsFarAsTheyGo) {
    const KROData items =
        concatenated({apeItem(5, 0, "Title", "Hello"), apeItem(2, 0, "Artist", "Me")});
    const auto tagSize = static_cast<std::uint32_t>(items.size() + 32);
    struct Case {
        const char* what;
        KROData file;
        const char* lines;
    };
    const Case cases[] = {
        {"a whole tag", apeTag(items, 2, tagSize), "name = Hello\nartist = Me\n"},
        {"a huge count", apeTag(items, 0xFFFFFFFF, tagSize), "name = Hello\nartist = Me\n"},
        {"a count of 0", apeTag(items, 0, tagSize), ""},
        {"a tag size past the file", apeTag(items, 2, tagSize + 1), ""},
        {"no footer", items, ""},
        {"a file shorter than a footer", bytesOf("APETAGEX"), ""},
        {"a value size past the file",
         apeTag(concatenated(
                    {apeItem(5, 0, "Title", "Hello"), apeItem(0xFFFFFFF0, 0, "Artist", "Me")}),
                2, tagSize),
         "name = Hello\n"},
        {"malformed UTF-8 is left out",
         apeTag(concatenated({apeItem(2, 0, "Title", "\xC3("), apeItem(2, 0, "Artist", "Me")}), 2,
                tagSize - 3),
         "artist = Me\n"},
    };
    KROTemporaryDirectory directory;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        KROWriteTestFile(directory / "tag.ape", c.file);
        EXPECT_EQ(linesOf(readTag(directory / "tag.ape", std::nullopt)->metadata()), c.lines);
    }
}

// Every key of the metadata table has a title for the host to show, and the
// table names what the AIFF text chunks and the iXML production block need.
TEST(KROAudioFileContentTags, MetadataTableCoversTheFormats) {
    const auto table = KROAudioMetadataTable::load();
    ASSERT_TRUE(table);
    std::map<std::string, std::string> aiff;
    std::set<std::string> ixml;
    for (const auto& entry : table->entries()) {
        const std::string titleKey = "KROMetadataItem_" + entry.key;
        EXPECT_NE(KROLocalizedString(titleKey), titleKey);
        if (const std::string* name = entry.nameForFormat("aiff")) {
            aiff[*name] = entry.key;
        }
        if (entry.nameForFormat("ixml")) {
            ixml.insert(entry.key);
        }
    }
    EXPECT_EQ(aiff["NAME"], "name");
    EXPECT_EQ(aiff["(c) "], "copyright");
    EXPECT_EQ(aiff["AUTH"], "author");
    EXPECT_EQ(aiff["ANNO"], "annotation");
    for (const char* key :
         {"fullTitle", "director", "productionName", "productionAddress", "productionEmail",
          "productionPhone", "productionNote", "soundMixerName", "soundMixerAddress",
          "soundMixerEmail", "soundMixerPhone", "soundMixerNote", "audioRecorderModel",
          "audioRecorderSerialNumber", "audioRecorderFirmware", "fileSet", "trackList", "fileUID",
          "takeType"}) {
        EXPECT_TRUE(ixml.count(key)) << key;
    }
}

#include "ripping/lookup.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/unit/libfixture.h"

namespace {

namespace fs = std::filesystem;

const char* kDisc = "RGsIqQtOzlx_LdxgsE0wIvFi8h4-";

std::string track(int position, const std::string& title, const std::string& own = "") {
    return "<track id=\"t\"><position>" + std::to_string(position) + "</position>" +
           (own.empty() ? "" : "<title>" + own + "</title>") + "<recording id=\"r\"><title>" +
           title + "</title></recording></track>";
}

std::string medium(int position, const std::string& discid, const std::string& tracks, int count) {
    return "<medium><position>" + std::to_string(position) + "</position><disc-list count=\"1\">" +
           (discid.empty() ? "" : "<disc id=\"" + discid + "\"/>") +
           "</disc-list><track-list count=\"" + std::to_string(count) + "\">" + tracks +
           "</track-list></medium>";
}

std::string release(const std::string& id, const std::string& title, const std::string& status,
                    const std::string& media) {
    return "<release id=\"" + id + "\"><title>" + title + "</title><status>" + status +
           "</status><date>2003-02-01</date><artist-credit><name-credit joinphrase=\" &amp; \">"
           "<artist id=\"a\"><name>Ann</name></artist></name-credit><name-credit><name>Bo "
           "(credited)</name><artist id=\"b\"><name>Bob</name></artist></name-credit>"
           "</artist-credit><medium-list>" +
           media + "</medium-list></release>";
}

std::string wrapDisc(const std::string& releases) {
    return std::string("<?xml version=\"1.0\"?><metadata "
                       "xmlns=\"http://musicbrainz.org/ns/mmd-2.0#\"><disc id=\"") +
           kDisc + "\"><release-list>" + releases + "</release-list></disc></metadata>";
}

TEST(MusicBrainzReply, MediumOrderCreditsAndTitles) {
    setenv("KZ_COVERART", "http://covers.example", 1);
    std::string two = track(1, "One") + track(2, "Two", "Two (own title)") + track(9, "Stray");
    // The disc is the second medium of a two-disc set; the first medium of
    // the same length must not be taken for it.
    std::string set = release("set", "Box", "Official",
                              medium(1, "other-disc", track(1, "Wrong") + track(2, "Wrong"), 2) +
                                  medium(2, kDisc, two, 2));
    std::string bootleg = release("boot", "Boot", "Bootleg", medium(1, kDisc, two, 2));
    std::string tocOnly = release("toc", "By TOC", "Official",
                                  medium(1, "", track(1, "x") + track(2, "y"), 2));
    std::string tooShort = release("short", "Short", "Official", medium(1, "", track(1, "x"), 1));
    auto found = parseMusicBrainzReply(wrapDisc(tocOnly + bootleg + tooShort + set), kDisc, 2);
    ASSERT_EQ(found.size(), 3u);
    // Holding the disc id and official first, then the disc id, then the TOC match.
    EXPECT_EQ(found[0].release, "set");
    EXPECT_EQ(found[1].release, "boot");
    EXPECT_EQ(found[2].release, "toc");
    const Candidate& c = found[0];
    EXPECT_EQ(c.artist, "Ann & Bo (credited)");
    EXPECT_EQ(c.album, "Box");
    EXPECT_EQ(c.year, "2003");
    EXPECT_EQ(c.source, "musicbrainz");
    EXPECT_EQ(c.art, "http://covers.example/release/set/front-500");
    EXPECT_EQ(c.tracks, (std::vector<std::string>{"One", "Two (own title)"}));

    // A table-of-contents lookup answers a bare release list.
    std::string bare = "<metadata><release-list>" + tocOnly + "</release-list></metadata>";
    EXPECT_EQ(parseMusicBrainzReply(bare, kDisc, 2).size(), 1u);

    setenv("KZ_COVERART", "", 1);
    EXPECT_EQ(parseMusicBrainzReply(wrapDisc(set), kDisc, 2)[0].art, "");
    unsetenv("KZ_COVERART");

    for (const char* junk : {"", "   ", "<metadata>", "<?xml version=\"1.0\"?>", "<a></b>",
                             "<metadata><disc id=\"x\"/></metadata>", "\xff\xfe<"})
        EXPECT_TRUE(parseMusicBrainzReply(junk, kDisc, 2).empty()) << junk;
}

class DiscDatabaseTest : public LibraryFixture {};

TEST_F(DiscDatabaseTest, TypedFirstFoundReplacedDamageSetAside) {
    std::string path = root + "/kzdiscs";
    DiscDatabase db(path);
    DiscKey key;
    key.discid = kDisc;
    key.cddbId = 0x0f000903;
    key.offsets = {150, 375};
    EXPECT_TRUE(db.find(kDisc).empty());

    Candidate mb{"Ann", "Box", "2003", "", "http://a/b", "musicbrainz", "set", {"One", "Two"}};
    Candidate cddb{"Ann", "Box", "", "Rock", "", "cddb", "rock/0f000903", {"1", "2"}};
    ASSERT_TRUE(db.putFound(key, {mb, cddb}));
    Candidate typed{"Right \"Quoted\"", "Album\\", "", "", "", "typed", "", {"Eins", "Zwei\n"}};
    ASSERT_TRUE(db.putTyped(key, typed));
    // Newer answers replace the older ones; typed names stay.
    ASSERT_TRUE(db.putFound(key, {cddb}));
    auto back = db.find(kDisc);
    ASSERT_EQ(back.size(), 2u);
    EXPECT_EQ(back[0].source, "typed");
    EXPECT_EQ(back[0].artist, typed.artist);
    EXPECT_EQ(back[0].album, typed.album);
    EXPECT_EQ(back[0].tracks, typed.tracks);
    EXPECT_EQ(back[1].source, "cddb");
    EXPECT_EQ(back[1].genre, "Rock");
    EXPECT_FALSE(db.putFound(key, {}));  // nothing new never erases
    EXPECT_EQ(db.find(kDisc).size(), 2u);

    // People read and mend this file by hand: it stays indented text.
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_NE(text.str().find("\n\t\t\"" + std::string(kDisc) + "\""), std::string::npos);
    EXPECT_NE(text.str().find("\"cddb\":\t\"0F000903\""), std::string::npos);

    // A damaged file is kept aside, and the next save starts a new one.
    std::ofstream(path) << "{\"discs\": [broken";
    EXPECT_TRUE(db.find(kDisc).empty());
    ASSERT_TRUE(db.putTyped(key, typed));
    EXPECT_TRUE(fs::exists(path + ".bad"));
    EXPECT_EQ(db.find(kDisc).size(), 1u);
    // No temporary file is left beside it.
    int files = 0;
    for (const auto& e : fs::directory_iterator(root))
        files += e.path().filename().string().rfind("kzdiscs", 0) == 0;
    EXPECT_EQ(files, 2);
}

}  // namespace

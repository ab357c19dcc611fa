#include "radio/radio.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/events.h"
#include "core/ui.h"
#include "library/settings.h"
#include "playback/control.h"
#include "radio/directory.h"
#include "radio/icy.h"
#include "radio/playlist.h"
#include "radio/recorder.h"
#include "radio/stations.h"
#include "tests/unit/decoder_fixture.h"

namespace {

PlaylistKind sniff(const std::string& type, const std::string& url, const std::string& body) {
    return sniffPlaylist(type, url, body.data(), body.size());
}

}  // namespace

TEST(PlaylistTest, KnowsAPlaylistByItsBytesBeforeItsLabel) {
    EXPECT_EQ(sniff("audio/mpeg", "http://h/s", "[playlist]\nFile1=http://a/\n"),
              PlaylistKind::Pls);
    EXPECT_EQ(sniff("text/plain", "http://h/s", "\xEF\xBB\xBF#EXTM3U\nhttp://a/\n"),
              PlaylistKind::M3u);
    EXPECT_EQ(sniff("", "http://h/s", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nv.m3u8\n"),
              PlaylistKind::HlsMaster);
    EXPECT_EQ(sniff("", "http://h/s", "#EXTM3U\n#EXT-X-TARGETDURATION:4\nseg0.ts\n"),
              PlaylistKind::HlsMedia);
    EXPECT_EQ(sniff("", "http://h/s", "  <ASX version=\"3\"><entry>"), PlaylistKind::Asx);
    EXPECT_EQ(sniff("", "http://h/s",
                    "<?xml version=\"1.0\"?><playlist xmlns=\"http://xspf.org/ns/0/\">"),
              PlaylistKind::Xspf);
    // A label or a name alone is believed only for text.
    EXPECT_EQ(sniff("audio/x-scpls", "http://h/s", "File1=http://a/\n"), PlaylistKind::Pls);
    EXPECT_EQ(sniff("", "http://h/radio.m3u?x=1", "http://a/\n"), PlaylistKind::M3u);
    EXPECT_EQ(sniff("audio/x-mpegurl", "http://h/s", std::string("\xFF\xFB\x90\x00\x01", 5)),
              PlaylistKind::None);
    EXPECT_EQ(sniff("audio/mpeg", "http://h/stream.mp3", std::string("ID3\x03\x00", 5)),
              PlaylistKind::None);
    EXPECT_EQ(sniff("text/html", "http://h/", "<html><body>Not here</body></html>"),
              PlaylistKind::None);
}

TEST(PlaylistTest, EveryFormGivesItsStreamsInOrderAndOnlyWebAddresses) {
    std::string pls =
        "[playlist]\r\nNumberOfEntries=3\r\nFile2=http://b.example/2\r\nTitle1=One\r\n"
        "File1=http://a.example/1\r\nfile3=  rel/3.mp3  \r\nFile4=file:///etc/passwd\r\n";
    EXPECT_EQ(parsePlaylist(PlaylistKind::Pls, pls, "http://h/dir/list.pls"),
              (std::vector<std::string>{"http://a.example/1", "http://b.example/2",
                                        "http://h/dir/rel/3.mp3"}));
    std::string m3u =
        "#EXTM3U\n#EXTINF:-1,Station\nhttps://s.example/live\n\n/abs.aac\n/etc/shadow\n";
    EXPECT_EQ(parsePlaylist(PlaylistKind::M3u, m3u, "http://h/a/b.m3u"),
              (std::vector<std::string>{"https://s.example/live", "http://h/abs.aac",
                                        "http://h/etc/shadow"}));
    std::string asx =
        "<asx version=\"3.0\"><Entry><REF HREF=\"http://x.example/a?b=1&amp;c=2\" />"
        "<ref href='mms://old.example/'/><EntryRef href=http://y.example/list.asx></entry></asx>";
    EXPECT_EQ(
        parsePlaylist(PlaylistKind::Asx, asx, "http://h/"),
        (std::vector<std::string>{"http://x.example/a?b=1&c=2", "http://y.example/list.asx"}));
    std::string xspf =
        "<?xml version=\"1.0\"?><playlist version=\"1\" xmlns=\"http://xspf.org/ns/0/\"><trackList>"
        "<track><location>http://z.example/s&amp;t</location></track>"
        "<track><location> stream.ogg </location></track></trackList></playlist>";
    EXPECT_EQ(parsePlaylist(PlaylistKind::Xspf, xspf, "https://h/p/l.xspf"),
              (std::vector<std::string>{"http://z.example/s&t", "https://h/p/stream.ogg"}));
    EXPECT_TRUE(parsePlaylist(PlaylistKind::Pls, "[playlist]\nFile1=\n", "http://h/").empty());
}

TEST(PlaylistTest, RelativeAddressesResolveAsABrowserWould) {
    EXPECT_EQ(resolveUrl("http://h:8000/a/b/c.m3u8?t=1", "seg1.ts"), "http://h:8000/a/b/seg1.ts");
    EXPECT_EQ(resolveUrl("http://h/a/b/c.m3u8", "../x/./y.ts"), "http://h/a/x/y.ts");
    EXPECT_EQ(resolveUrl("http://h/a/b/c.m3u8", "../../../../y.ts"), "http://h/y.ts");
    EXPECT_EQ(resolveUrl("https://h/a/c.m3u8", "//cdn.example/s.ts"), "https://cdn.example/s.ts");
    EXPECT_EQ(resolveUrl("http://h", "s.ts"), "http://h/s.ts");
    EXPECT_EQ(resolveUrl("http://h/a", "HTTP://other/x"), "HTTP://other/x");
    EXPECT_EQ(resolveUrl("http://h/a/b", "file:/etc/passwd"), "file:/etc/passwd");
    EXPECT_FALSE(isHttpUrl(resolveUrl("http://h/a/b", "file:/etc/passwd")));
}

TEST(PlaylistTest, HlsMasterAndMediaPlaylists) {
    std::string master =
        "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=320000,CODECS=\"mp4a.40.2\"\nhi/index.m3u8\n"
        "#EXT-X-STREAM-INF:CODECS=\"mp4a.40.5,x\",BANDWIDTH=48000\nlo/index.m3u8\n"
        "#EXT-X-STREAM-INF:BANDWIDTH=128000\nmid/index.m3u8\n";
    auto variants = parseHlsMaster(master, "http://h/live/master.m3u8");
    ASSERT_EQ(variants.size(), 3u);
    EXPECT_EQ(variants[1].bandwidth, 48000);
    EXPECT_EQ(variants[1].codecs, "mp4a.40.5,x");
    EXPECT_EQ(pickHlsVariant(variants, 256000)->url, "http://h/live/mid/index.m3u8");
    EXPECT_EQ(pickHlsVariant(variants, 1000)->url, "http://h/live/lo/index.m3u8");
    EXPECT_EQ(pickHlsVariant({}, 1000), nullptr);

    std::string media =
        "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:41\n"
        "#EXTINF:5.97,\nseg41.ts\n#EXTINF:6.0,\nhttp://cdn/seg42.ts\n#EXT-X-ENDLIST\n";
    HlsMedia m = parseHlsMedia(media, "http://h/live/lo/index.m3u8");
    EXPECT_EQ(m.targetDuration, 6);
    EXPECT_TRUE(m.endList);
    ASSERT_EQ(m.segments.size(), 2u);
    EXPECT_EQ(m.segments[0].url, "http://h/live/lo/seg41.ts");
    EXPECT_EQ(m.segments[0].sequence, 41);
    EXPECT_EQ(m.segments[1].sequence, 42);
    EXPECT_DOUBLE_EQ(m.segments[0].duration, 5.97);
    // A target of 0 or a huge one would spin or stall the reload loop.
    EXPECT_EQ(parseHlsMedia("#EXTM3U\n#EXT-X-TARGETDURATION:0\n", "http://h/").targetDuration, 1);
    EXPECT_EQ(parseHlsMedia("#EXTM3U\n#EXT-X-TARGETDURATION:99999\n", "http://h/").targetDuration,
              60);
    EXPECT_TRUE(parseHlsMedia("#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n", "http://h/").encrypted);

    const unsigned char tag[] = {'I', 'D', '3', 4, 0, 0, 0, 0, 0, 5, 1, 2, 3, 4, 5, 0xFF, 0xF1};
    EXPECT_EQ(id3TagLength(tag, sizeof tag), 15u);
    EXPECT_EQ(id3TagLength(tag + 15, 2), 0u);
}

TEST(IcyTest, MetadataIsTakenOutOfTheAudioWhereverTheReadsSplitIt) {
    // Three blocks of 8 audio bytes, with a title, an empty block and the
    // same title again (reported once), then a new one.
    std::string meta1 = "StreamTitle='Nina Simone - Don't Explain';StreamUrl='';";
    meta1.resize(64, '\0');
    std::string meta3 = "StreamTitle='Next';";
    meta3.resize(32, '\0');
    std::string wire = "AAAAAAAA" + std::string(1, 4) + meta1 + "BBBBBBBB" + std::string(1, 0) +
                       "CCCCCCCC" + std::string(1, 4) + meta1 + "DDDDDDDD" + std::string(1, 2) +
                       meta3 + "EE";
    for (size_t chunk : {size_t(1), size_t(3), size_t(7), size_t(9), wire.size()}) {
        std::string audio;
        std::vector<std::string> titles;
        IcySplitter icy(
            8,
            [&](const char* d, size_t n) {
                audio.append(d, n);
                return true;
            },
            [&](const std::string& t) { titles.push_back(t); });
        for (size_t at = 0; at < wire.size(); at += chunk)
            ASSERT_TRUE(icy.feed(wire.data() + at, std::min(chunk, wire.size() - at)));
        EXPECT_EQ(audio, "AAAAAAAABBBBBBBBCCCCCCCCDDDDDDDDEE") << chunk;
        EXPECT_EQ(titles, (std::vector<std::string>{"Nina Simone - Don't Explain", "Next"}))
            << chunk;
    }
    // A refusing decoder stops the feed; no metadata means all audio.
    IcySplitter refusing(
        4, [](const char*, size_t) { return false; }, nullptr);
    EXPECT_FALSE(refusing.feed("abcdef", 6));
    std::string all;
    IcySplitter plain(
        0,
        [&](const char* d, size_t n) {
            all.append(d, n);
            return true;
        },
        nullptr);
    EXPECT_TRUE(plain.feed("\x01StreamTitle='x';", 17));
    EXPECT_EQ(all.size(), 17u);
}

TEST(IcyTest, TitlesAreCleanedForShowing) {
    EXPECT_EQ(icyStreamTitle("StreamTitle='A \"quoted\" \\ title';"), "A \"quoted\" \\ title");
    EXPECT_EQ(icyStreamTitle("StreamTitle='';"), "");
    EXPECT_EQ(icyStreamTitle("StreamUrl='x';"), "");
    EXPECT_EQ(icyStreamTitle("StreamTitle='No end"), "No end");
    EXPECT_EQ(icyStreamTitle("StreamTitle='It's';StreamUrl='u';"), "It's");
    // Latin-1 becomes UTF-8, good UTF-8 stays, broken sequences and control
    // characters do not reach the page.
    EXPECT_EQ(icyStreamTitle("StreamTitle='Bj\xF6rk - J\xF3ga';"), "Bj\xC3\xB6rk - J\xC3\xB3ga");
    EXPECT_EQ(icyStreamTitle("StreamTitle='Sigur R\xC3\xB3s';"), "Sigur R\xC3\xB3s");
    EXPECT_EQ(icyStreamTitle("StreamTitle='a\x01\nb\xC3';"), "a  b\xC3\x83");
    EXPECT_EQ(cleanStreamText("\xED\xA0\x80x"), "\xC3\xAD\xC2\xA0 x");
    // 4 KB titles are cut, never in the middle of a character.
    std::string big = "StreamTitle='" + std::string(4000, 'x') + "';";
    EXPECT_EQ(icyStreamTitle(big).size(), 512u);
    std::string wide = "StreamTitle='";
    for (int i = 0; i < 600; i++)
        wide += "\xC3\xA9";
    std::string cut = icyStreamTitle(wide + "';");
    EXPECT_EQ(cut.size(), 512u);
    EXPECT_EQ(cleanStreamText(cut, 9999), cut);
}

namespace {

int dryPeriods = 0;
int dropouts = 0;
int enough = 0;
int stops = 0;

int fakeSamples(void* dst, int frames) {
    if (dryPeriods > 0) {
        dryPeriods--;
        return 0;
    }
    memset(dst, 0x11, static_cast<size_t>(frames) * 4);
    return frames;
}

}  // namespace

// The mixer's side of the radio channel: a dry spell is reported once, at
// its start; 500000 frames played report that the stream is healthy again.
TEST(RadioChannelTest, DrySpellsAreReportedOnceAndLongPlayIsReported) {
    resetSettings();
    resetPlayback();
    RadioHooks hooks;
    hooks.samples = fakeSamples;
    hooks.dropout = [] { dropouts++; };
    hooks.playedEnough = [] { enough++; };
    hooks.stop = [] { stops++; };
    setRadioHooks(hooks);
    selectRADIO();
    startRadioChannel();
    ASSERT_TRUE(isRadioPlaying());
    std::vector<uint8_t> period(4096 * 4);
    dryPeriods = 5;
    for (int i = 0; i < 8; i++)
        getSamples(period.data(), 4096);
    EXPECT_EQ(dropouts, 1);
    EXPECT_EQ(period[0], 0x11);
    dryPeriods = 2;
    for (int i = 0; i < 3; i++)
        getSamples(period.data(), 4096);
    EXPECT_EQ(dropouts, 2);
    EXPECT_EQ(enough, 0);
    for (int i = 0; i < 130; i++)
        getSamples(period.data(), 4096);
    EXPECT_EQ(enough, 1);
    EXPECT_TRUE(isPlaying());
    // Leaving the radio stops its stream; another source does not use it.
    selectHDD();
    EXPECT_FALSE(isRadioPlaying());
    EXPECT_GE(stops, 1);
    setRadioHooks(RadioHooks());
    resetPlayback();
}

class RadioKeysTest : public decoder_test::DecoderTest {};

// The radio key plays the current station, event 77 starts it over, the
// record key records only what streams, and choosing the library ends it.
TEST_F(RadioKeysTest, KeysStartRestartAndLeaveTheRadio) {
    resetSettings();
    resetPlayback();
    uiQInit();
    initInternetRadio();
    // Nothing listens on port 9: the stream keeps reconnecting.
    RadioStation closed{"Closed", "http://127.0.0.1:9/", ""};
    setCurrentRadio(closed);
    doui(47);
    EXPECT_EQ(getSelectedSource(), SEL_RADIO);
    EXPECT_TRUE(isRadioPlaying());
    EXPECT_EQ(radioPlayer().station().name, "Closed");
    auto waitFor = [](const char* status) {
        for (int i = 0; i < 100 && radioPlayer().statusText() != status; i++)
            usleep(50000);
        return radioPlayer().statusText();
    };
    EXPECT_EQ(waitFor("Reconnecting"), "Reconnecting");
    doui(77);
    EXPECT_TRUE(radioPlayer().active());
    EXPECT_EQ(waitFor("Reconnecting"), "Reconnecting");
    doui(21);
    EXPECT_FALSE(recorder().recording());
    selectHDD();
    for (int i = 0; i < 100 && radioPlayer().active(); i++)
        usleep(20000);
    EXPECT_FALSE(radioPlayer().active());
    EXPECT_FALSE(isRadioPlaying());

    // A station that never answers is given up on ("about two minutes" on
    // the box; two seconds here), and the radio falls silent.
    radioPlayer().giveUpSeconds = 2;
    doui(47);
    EXPECT_EQ(waitFor("Stream failed"), "Stream failed");
    for (int i = 0; i < 100 && isRadioPlaying(); i++)
        usleep(20000);
    EXPECT_FALSE(isRadioPlaying());
    radioPlayer().giveUpSeconds = 120;
    radioPlayer().stop();
    setRadioHooks(RadioHooks());
    resetPlayback();
}

// Directory replies: junk and wrong shapes give nothing; stations without a
// web address are skipped; found stations are known but not kept.
TEST(DirectoryTest, JunkGivesNothingAndStationsJoinTheListUnkept) {
    stationList().clear();
    for (const char* junk : {"", "junk", "{\"name\":\"x\"}", "[1,2,\"x\",null]", "[{\"name\":5}]",
                             "[{\"name\":\"No address\",\"url\":\"file:///etc/passwd\"}]"})
        EXPECT_TRUE(parseDirectoryStations(junk).empty()) << junk;
    auto found = parseDirectoryStations(
        "[{\"name\":\"A \\\"q\\\"\\u0001\",\"url\":\"http://a/\",\"url_resolved\":\"https://a/r\","
        "\"favicon\":\"javascript:alert(1)\"},{\"name\":\"\",\"url\":\"http://b/\"}]");
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].name, "A \"q\"");
    EXPECT_EQ(stationList().get(found[0].id - 5000000).url, "https://a/r");
    EXPECT_EQ(stationList().get(found[0].id - 5000000).logo, "");
    EXPECT_EQ(found[1].name, "http://b/");
    EXPECT_EQ(
        parseDirectoryFolders("[{\"name\":\"jazz\",\"stationcount\":\"12\"},{\"x\":1}]", "genre")[0]
            .link,
        "genre/jazz");
    EXPECT_TRUE(parseDirectoryFolders("{}", "genre").empty());
    stationList().clear();
}

// MusicBrainz: the request goes out through libcurl, the reply is read by
// libmusicbrainz5. The library's own fetcher speaks plain HTTP only (the
// service is HTTPS), has no time-out to set and cannot be pointed at another
// base address; its parser and object model are what we keep.
#include <curl/curl.h>
#include <musicbrainz5/Artist.h>
#include <musicbrainz5/ArtistCredit.h>
#include <musicbrainz5/Disc.h>
#include <musicbrainz5/Medium.h>
#include <musicbrainz5/MediumList.h>
#include <musicbrainz5/Metadata.h>
#include <musicbrainz5/NameCredit.h>
#include <musicbrainz5/NameCreditList.h>
#include <musicbrainz5/Recording.h>
#include <musicbrainz5/Release.h>
#include <musicbrainz5/ReleaseList.h>
#include <musicbrainz5/Track.h>
#include <musicbrainz5/TrackList.h>
#include <musicbrainz5/xmlParser.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include "core/log.h"
#include "core/http.h"
#include "ripping/lookup.h"

namespace {

std::string creditText(const MusicBrainz5::CArtistCredit* credit) {
    std::string out;
    if (!credit || !credit->NameCreditList()) return out;
    const MusicBrainz5::CNameCreditList* names = credit->NameCreditList();
    for (int i = 0; i < names->NumItems(); i++) {
        const MusicBrainz5::CNameCredit* n = names->Item(i);
        if (!n) continue;
        // The credited name, which may differ from the artist's own.
        std::string name = n->Name();
        if (name.empty() && n->Artist()) name = n->Artist()->Name();
        out += name + n->JoinPhrase();
    }
    return out;
}

const MusicBrainz5::CMedium* chooseMedium(const MusicBrainz5::CRelease& release,
                                          const std::string& discid, int trackCount,
                                          bool* exact) {
    *exact = false;
    const MusicBrainz5::CMediumList* media = release.MediumList();
    if (!media) return nullptr;
    for (int i = 0; i < media->NumItems(); i++) {
        const MusicBrainz5::CMedium* m = media->Item(i);
        if (m && !discid.empty() && m->ContainsDiscID(discid)) {
            *exact = true;
            return m;
        }
    }
    // A table-of-contents match names no disc id: the medium that fits.
    for (int i = 0; i < media->NumItems(); i++) {
        const MusicBrainz5::CMedium* m = media->Item(i);
        if (m && m->TrackList() && m->TrackList()->NumItems() == trackCount) return m;
    }
    return nullptr;
}

struct Ranked {
    Candidate candidate;
    int rank;
};

}  // namespace

std::vector<Candidate> parseMusicBrainzReply(const std::string& xml, const std::string& discid,
                                             int trackCount) {
    std::vector<Candidate> out;
    // libmusicbrainz5's parser dereferences a document that has no element
    // (an empty or truncated reply): only a well-formed one goes on to it.
    xmlDocPtr doc = xmlReadMemory(xml.data(), static_cast<int>(std::min<size_t>(xml.size(), INT_MAX)),
                                  "reply.xml", nullptr,
                                  XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    bool wellFormed = doc && xmlDocGetRootElement(doc);
    if (doc) xmlFreeDoc(doc);
    if (!wellFormed) {
        kzLog("MusicBrainz reply is not XML (%d bytes)\n", static_cast<int>(xml.size()));
        return out;
    }
    XMLResults results;
    std::unique_ptr<XMLNode> root(XMLRootNode::parseString(xml, &results));
    if (!root || results.code != eXMLErrorNone) {
        std::string why = results.message.substr(0, results.message.find('\n'));
        kzLog("MusicBrainz reply is not XML (%s)\n", why.c_str());
        return out;
    }
    // The document's element is <metadata> itself.
    XMLNode node = *root;
    if (!node.getName() || strcmp(node.getName(), "metadata") != 0)
        node = root->getChildNode("metadata");
    if (node.isEmpty()) {
        kzLog("MusicBrainz reply has no metadata\n");
        return out;
    }
    MusicBrainz5::CMetadata metadata(node);
    const MusicBrainz5::CReleaseList* releases =
        metadata.Disc() && metadata.Disc()->ReleaseList() ? metadata.Disc()->ReleaseList()
                                                           : metadata.ReleaseList();
    if (!releases) return out;

    std::vector<Ranked> ranked;
    for (int i = 0; i < releases->NumItems(); i++) {
        const MusicBrainz5::CRelease* r = releases->Item(i);
        if (!r) continue;
        bool exact;
        const MusicBrainz5::CMedium* medium = chooseMedium(*r, discid, trackCount, &exact);
        if (!medium || !medium->TrackList()) continue;
        Candidate c;
        c.source = "musicbrainz";
        c.release = r->ID();
        c.album = r->Title();
        c.artist = creditText(r->ArtistCredit());
        c.year = r->Date().substr(0, 4);
        const MusicBrainz5::CTrackList* tracks = medium->TrackList();
        c.tracks.assign(std::max(trackCount, 0), "");
        for (int t = 0; t < tracks->NumItems(); t++) {
            const MusicBrainz5::CTrack* track = tracks->Item(t);
            if (!track) continue;
            int position = track->Position();
            if (position < 1 || position > trackCount) continue;
            // A track's own title wins over its recording's.
            std::string title = track->Title();
            if (title.empty() && track->Recording()) title = track->Recording()->Title();
            c.tracks[position - 1] = title;
        }
        if (!c.release.empty() && !coverArtBase().empty())
            c.art = coverArtBase() + "/release/" + c.release + "/front-500";
        int rank = (exact ? 0 : 2) + (r->Status() == "Official" ? 0 : 1);
        ranked.push_back({std::move(c), rank});
    }
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const Ranked& a, const Ranked& b) { return a.rank < b.rank; });
    for (Ranked& r : ranked)
        out.push_back(std::move(r.candidate));
    return out;
}

std::vector<Candidate> lookupMusicBrainz(const DiscKey& key, int timeoutSeconds) {
    std::string base = musicBrainzBase();
    if (base.empty() || key.discid.empty()) return {};
    // The table of contents lets the service match a disc it knows under
    // another id: "first last leadout offset...".
    std::string toc = std::to_string(key.firstTrack) + "+" +
                      std::to_string(key.firstTrack + static_cast<int>(key.offsets.size()) - 1) +
                      "+" + std::to_string(key.leadout);
    for (int o : key.offsets)
        toc += "+" + std::to_string(o);
    std::string url = base + "/ws/2/discid/" + key.discid +
                      "?toc=" + toc + "&cdstubs=no&inc=artist-credits+recordings";

    // The service asks for one request a second at most, from the whole box.
    static std::mutex paceMutex;
    static std::chrono::steady_clock::time_point last;
    HttpResult reply;
    for (int attempt = 0; attempt < 2; attempt++) {
        {
            std::lock_guard<std::mutex> pace(paceMutex);
            auto next = last + std::chrono::seconds(1);
            auto now = std::chrono::steady_clock::now();
            if (now < next) std::this_thread::sleep_for(next - now);
            last = std::chrono::steady_clock::now();
        }
        kzLog("MusicBrainz lookup %s\n", url.c_str());
        reply = httpGet(url, timeoutSeconds, 4 << 20);
        // 503 is the rate limit: wait as asked (a second or two) and go once more.
        if (reply.status != 503 || attempt == 1) break;
        int wait = std::clamp(reply.retryAfter, 1, 5);
        kzLog("MusicBrainz is busy (503): trying again in %d s\n", wait);
        std::this_thread::sleep_for(std::chrono::seconds(wait));
    }
    if (!reply.error.empty()) {
        kzLog("MusicBrainz lookup failed: %s\n", reply.error.c_str());
        return {};
    }
    if (reply.status == 404) {
        kzLog("MusicBrainz knows no disc %s\n", key.discid.c_str());
        return {};
    }
    if (reply.status != 200) {
        kzLog("MusicBrainz lookup failed: HTTP %ld\n", reply.status);
        return {};
    }
    std::vector<Candidate> found =
        parseMusicBrainzReply(reply.body, key.discid, static_cast<int>(key.offsets.size()));
    kzLog("MusicBrainz gave %d candidates\n", static_cast<int>(found.size()));
    return found;
}

// The words of UPnP AV that networked speakers understand: SSDP replies,
// device descriptions, SOAP envelopes and their answers, DIDL-Lite. Pure
// text in, text out: what comes from the network is never trusted.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

constexpr char kMediaRendererType[] = "urn:schemas-upnp-org:device:MediaRenderer:1";
constexpr char kZonePlayerType[] = "urn:schemas-upnp-org:device:ZonePlayer:1";
constexpr char kAVTransportType[] = "urn:schemas-upnp-org:service:AVTransport:1";
constexpr char kRenderingControlType[] = "urn:schemas-upnp-org:service:RenderingControl:1";

// One answer to an M-SEARCH ("HTTP/1.1 200 OK") or an announcement
// ("NOTIFY * HTTP/1.1" with "NTS: ssdp:alive").
struct SsdpReply {
    std::string location;  // an http:// address of the device description
    std::string st;        // what it is (ST, or NT for an announcement)
    std::string usn;
};
// False for anything else: a search of another client, a bye-bye, a reply
// without an http:// LOCATION.
bool parseSsdpReply(std::string_view datagram, SsdpReply& out);
std::string ssdpSearchText(const char* target);

// What kz needs of a renderer's description. A Sonos player describes its
// renderer as an embedded device; its room name names the zone.
struct DeviceDescription {
    std::string udn;
    std::string friendlyName;
    std::string roomName;
    std::string manufacturer;
    std::string avTransport;  // absolute control addresses
    std::string renderingControl;
    // The zone's name: the room of a Sonos player, else the friendly name.
    std::string zoneName() const;
};
// False, with why, for a description without an AVTransport control
// address or one that is not XML.
bool parseDeviceDescription(std::string_view xml, const std::string& location,
                            DeviceDescription& out, std::string& why);
// "http://host:port" of an address, and its host alone.
std::string urlOrigin(const std::string& url);
std::string urlHost(const std::string& url);

// Text made safe inside XML elements and attributes.
std::string xmlEscape(std::string_view text);
// Each byte outside the unreserved set as %XX ("/" kept when keepSlash).
std::string percentEncode(std::string_view text, bool keepSlash);

using SoapArgs = std::vector<std::pair<std::string, std::string>>;
// The envelope of one action; argument values are escaped here.
std::string soapEnvelope(const char* serviceType, const char* action, const SoapArgs& args);
struct SoapAnswer {
    bool ok = false;
    std::map<std::string, std::string> values;  // the action's out arguments
    std::string fault;                          // "718 Invalid InstanceID", or why it is unusable
};
SoapAnswer parseSoapAnswer(std::string_view xml, long httpStatus, const char* action);

struct TrackMetadata {
    std::string title, artist, album, url, mime, artUrl;
    int seconds = 0;
};
// One item of DIDL-Lite, escaped for XML (the SOAP envelope escapes it again
// as the argument's text).
std::string didlLite(const TrackMetadata& t);
// "0:03:25" for DIDL's duration; seconds from "H:MM:SS" (0 when unusable).
std::string upnpTime(int seconds);
int parseUpnpTime(std::string_view text);

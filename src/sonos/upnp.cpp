#include "sonos/upnp.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <strings.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

#include "core/http.h"

namespace {

struct DocFree {
    void operator()(xmlDoc* d) const { xmlFreeDoc(d); }
};
using Doc = std::unique_ptr<xmlDoc, DocFree>;

// No network, no entity substitution, no noise on stderr: the text is a
// stranger's.
Doc readXml(std::string_view xml) {
    static std::once_flag once;
    std::call_once(once, [] { xmlInitParser(); });
    if (xml.empty() || xml.size() > INT_MAX) return nullptr;
    Doc doc(xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr,
                          XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    // UPnP texts never declare a DTD; one that does may hide entities that
    // grow without end when read.
    if (doc && doc->intSubset) return nullptr;
    return doc;
}

bool named(const xmlNode* n, const char* name) {
    return n && n->type == XML_ELEMENT_NODE && n->name &&
           strcmp(reinterpret_cast<const char*>(n->name), name) == 0;
}

const xmlNode* child(const xmlNode* n, const char* name) {
    for (const xmlNode* c = n ? n->children : nullptr; c; c = c->next)
        if (named(c, name)) return c;
    return nullptr;
}

std::string text(const xmlNode* n) {
    if (!n) return "";
    xmlChar* t = xmlNodeGetContent(n);
    std::string s = t ? reinterpret_cast<const char*>(t) : "";
    xmlFree(t);
    // Descriptions are often pretty-printed inside their elements.
    size_t a = s.find_first_not_of(" \t\r\n"), b = s.find_last_not_of(" \t\r\n");
    return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

std::string childText(const xmlNode* n, const char* name) {
    return text(child(n, name));
}

// The first service of a type (any version) in a device or the devices it
// embeds, depth first; its control address as written.
std::string findControl(const xmlNode* device, const char* typePrefix, int depth = 0) {
    if (!device || depth > 8) return "";
    for (const xmlNode* s = child(child(device, "serviceList"), "service"); s; s = s->next) {
        if (!named(s, "service")) continue;
        std::string type = childText(s, "serviceType");
        if (type.compare(0, strlen(typePrefix), typePrefix) == 0) {
            std::string control = childText(s, "controlURL");
            if (!control.empty()) return control;
        }
    }
    for (const xmlNode* d = child(child(device, "deviceList"), "device"); d; d = d->next) {
        if (!named(d, "device")) continue;
        std::string found = findControl(d, typePrefix, depth + 1);
        if (!found.empty()) return found;
    }
    return "";
}

// The header's value when line starts with name (any case) and a colon.
bool headerValue(std::string_view line, const char* name, std::string& value) {
    size_t n = strlen(name);
    if (line.size() <= n || line[n] != ':' || strncasecmp(line.data(), name, n) != 0) return false;
    std::string_view v = line.substr(n + 1);
    while (!v.empty() && (v.front() == ' ' || v.front() == '\t'))
        v.remove_prefix(1);
    while (!v.empty() && (v.back() == ' ' || v.back() == '\t' || v.back() == '\r'))
        v.remove_suffix(1);
    value.assign(v);
    return true;
}

bool startsWith(std::string_view s, std::string_view prefix) {
    return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

// A control address is plain http on the renderer's own network.
std::string controlUrl(const std::string& base, const std::string& ref) {
    std::string url = ref.empty() ? "" : resolveUrl(base, ref);
    return startsWith(url, "http://") ? url : "";
}

}  // namespace

bool parseSsdpReply(std::string_view datagram, SsdpReply& out) {
    out = SsdpReply{};
    size_t end = datagram.find('\n');
    std::string_view first = datagram.substr(0, end);
    bool reply = startsWith(first, "HTTP/1.1 200") || startsWith(first, "HTTP/1.0 200");
    bool notify = startsWith(first, "NOTIFY * HTTP/1.");
    if (!reply && !notify) return false;
    std::string nts, value;
    while (end != std::string_view::npos) {
        size_t start = end + 1;
        end = datagram.find('\n', start);
        std::string_view line = datagram.substr(
            start, end == std::string_view::npos ? std::string_view::npos : end - start);
        if (headerValue(line, "LOCATION", value)) {
            out.location = value;
        } else if (headerValue(line, reply ? "ST" : "NT", value)) {
            out.st = value;
        } else if (headerValue(line, "USN", value)) {
            out.usn = value;
        } else if (headerValue(line, "NTS", value)) {
            nts = value;
        }
    }
    if (notify && nts != "ssdp:alive") return false;
    return startsWith(out.location, "http://") && out.location.size() < 1024;
}

std::string ssdpSearchText(const char* target) {
    return std::string(
               "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: "
               "2\r\nST: ") +
           target + "\r\nUSER-AGENT: Linux UPnP/1.0 kz\r\n\r\n";
}

std::string DeviceDescription::zoneName() const {
    return roomName.empty() ? friendlyName : roomName;
}

bool parseDeviceDescription(std::string_view xml, const std::string& location,
                            DeviceDescription& out, std::string& why) {
    out = DeviceDescription{};
    Doc doc = readXml(xml);
    const xmlNode* root = doc ? xmlDocGetRootElement(doc.get()) : nullptr;
    if (!named(root, "root")) {
        why = "not a device description";
        return false;
    }
    const xmlNode* device = child(root, "device");
    if (!device) {
        why = "no device in the description";
        return false;
    }
    std::string base = childText(root, "URLBase");
    if (!startsWith(base, "http://")) base = location;
    out.udn = childText(device, "UDN");
    out.friendlyName = childText(device, "friendlyName");
    out.roomName = childText(device, "roomName");
    out.manufacturer = childText(device, "manufacturer");
    out.avTransport =
        controlUrl(base, findControl(device, "urn:schemas-upnp-org:service:AVTransport:"));
    out.renderingControl =
        controlUrl(base, findControl(device, "urn:schemas-upnp-org:service:RenderingControl:"));
    if (out.avTransport.empty()) {
        why = "no AVTransport service";
        return false;
    }
    if (out.zoneName().empty()) out.friendlyName = urlHost(location);
    return true;
}

std::string urlOrigin(const std::string& url) {
    if (!startsWith(url, "http://")) return "";
    size_t slash = url.find('/', 7);
    return slash == std::string::npos ? url : url.substr(0, slash);
}

std::string urlHost(const std::string& url) {
    std::string origin = urlOrigin(url);
    if (origin.empty()) return "";
    std::string host = origin.substr(7);
    if (size_t at = host.rfind('@'); at != std::string::npos) host = host.substr(at + 1);
    if (!host.empty() && host[0] == '[') return host.substr(1, host.find(']') - 1);
    return host.substr(0, host.find(':'));
}

std::string xmlEscape(std::string_view s) {
    std::string out;
    out.reserve(s.size() + 16);
    for (unsigned char c : s) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&apos;";
                break;
            default:
                // Control characters are not allowed in XML 1.0 at all.
                if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') continue;
                out += static_cast<char>(c);
        }
    }
    return out;
}

std::string percentEncode(std::string_view s, bool keepSlash) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : s) {
        if (isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~' || (keepSlash && c == '/')) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

std::string soapEnvelope(const char* serviceType, const char* action, const SoapArgs& args) {
    std::string body =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
        "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
        "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><u:";
    body += action;
    body += " xmlns:u=\"";
    body += serviceType;
    body += "\">";
    for (const auto& [name, value] : args) {
        body += "<" + name + ">" + xmlEscape(value) + "</" + name + ">";
    }
    body += "</u:";
    body += action;
    body += "></s:Body></s:Envelope>";
    return body;
}

SoapAnswer parseSoapAnswer(std::string_view xml, long httpStatus, const char* action) {
    SoapAnswer a;
    Doc doc = readXml(xml);
    const xmlNode* envelope = doc ? xmlDocGetRootElement(doc.get()) : nullptr;
    const xmlNode* body = named(envelope, "Envelope") ? child(envelope, "Body") : nullptr;
    const xmlNode* first = body ? body->children : nullptr;
    while (first && first->type != XML_ELEMENT_NODE)
        first = first->next;
    if (!first) {
        a.fault = "HTTP " + std::to_string(httpStatus) + " without a SOAP answer";
        return a;
    }
    if (named(first, "Fault")) {
        // The UPnP error sits in detail/UPnPError; search for it wherever.
        std::string code, description;
        for (const xmlNode* n = first; n;) {
            if (named(n, "errorCode")) code = text(n);
            if (named(n, "errorDescription")) description = text(n);
            if (n->children) {
                n = n->children;
                continue;
            }
            while (n && n != first && !n->next)
                n = n->parent;
            if (!n || n == first) break;
            n = n->next;
        }
        if (code.empty()) code = childText(first, "faultstring");
        a.fault =
            (code.empty() ? "SOAP fault" : code) + (description.empty() ? "" : " " + description);
        return a;
    }
    std::string expected = std::string(action) + "Response";
    if (!named(first, expected.c_str()) || httpStatus < 200 || httpStatus >= 300) {
        a.fault = "HTTP " + std::to_string(httpStatus) + ": unexpected answer";
        return a;
    }
    for (const xmlNode* c = first->children; c; c = c->next) {
        if (c->type == XML_ELEMENT_NODE && a.values.size() < 64)
            a.values[reinterpret_cast<const char*>(c->name)] = text(c);
    }
    a.ok = true;
    return a;
}

std::string upnpTime(int seconds) {
    if (seconds < 0) seconds = 0;
    char t[32];
    snprintf(t, sizeof t, "%d:%02d:%02d", seconds / 3600, seconds / 60 % 60, seconds % 60);
    return t;
}

int parseUpnpTime(std::string_view s) {
    long parts[3] = {0, 0, 0};
    int n = 0;
    long value = 0;
    bool digits = false;
    for (char c : s) {
        if (c >= '0' && c <= '9') {
            if (value > 100000000) return 0;
            value = value * 10 + (c - '0');
            digits = true;
        } else if (c == ':' && digits && n < 2) {
            parts[n++] = value;
            value = 0;
            digits = false;
        } else if (c == '.') {
            break;  // fractions of a second
        } else {
            return 0;
        }
    }
    if (!digits || n != 2) return 0;
    parts[2] = value;
    long total = parts[0] * 3600 + parts[1] * 60 + parts[2];
    return total > INT_MAX ? 0 : static_cast<int>(total);
}

std::string didlLite(const TrackMetadata& t) {
    std::string d =
        "<DIDL-Lite xmlns=\"urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/\" "
        "xmlns:dc=\"http://purl.org/dc/elements/1.1/\" "
        "xmlns:upnp=\"urn:schemas-upnp-org:metadata-1-0/upnp/\">"
        "<item id=\"1\" parentID=\"0\" restricted=\"1\">";
    d += "<dc:title>" + xmlEscape(t.title) + "</dc:title>";
    if (!t.artist.empty()) {
        d += "<dc:creator>" + xmlEscape(t.artist) + "</dc:creator>";
        d += "<upnp:artist>" + xmlEscape(t.artist) + "</upnp:artist>";
    }
    if (!t.album.empty()) d += "<upnp:album>" + xmlEscape(t.album) + "</upnp:album>";
    if (!t.artUrl.empty()) d += "<upnp:albumArtURI>" + xmlEscape(t.artUrl) + "</upnp:albumArtURI>";
    d += "<upnp:class>object.item.audioItem.musicTrack</upnp:class>";
    d += "<res protocolInfo=\"http-get:*:" + xmlEscape(t.mime) + ":*\"";
    if (t.seconds > 0) d += " duration=\"" + upnpTime(t.seconds) + "\"";
    d += ">" + xmlEscape(t.url) + "</res></item></DIDL-Lite>";
    return d;
}

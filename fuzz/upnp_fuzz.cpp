// Arbitrary bytes as what a stranger on the network sends: an SSDP datagram,
// a device description and a SOAP answer. The parsers must never crash, and
// what they accept must be usable: http addresses only, sane times.
#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <string_view>

#include "sonos/upnp.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    SsdpReply reply;
    if (parseSsdpReply(text, reply) && reply.location.compare(0, 7, "http://") != 0) abort();

    DeviceDescription d;
    std::string why;
    if (parseDeviceDescription(text, "http://10.0.0.5:1400/xml/d.xml", d, why)) {
        if (d.avTransport.compare(0, 7, "http://") != 0) abort();
        if (!d.renderingControl.empty() && d.renderingControl.compare(0, 7, "http://") != 0)
            abort();
    } else if (why.empty()) {
        abort();
    }

    for (const char* action : {"GetTransportInfo", "GetVolume"}) {
        SoapAnswer a = parseSoapAnswer(text, 200, action);
        if (!a.ok && a.fault.empty()) abort();
        // What comes back goes into JSON and XML again: escaping must hold.
        for (const auto& [name, value] : a.values)
            if (xmlEscape(value).find('<') != std::string::npos) abort();
    }
    if (parseUpnpTime(text) < 0) abort();
    return 0;
}

#include "sonos/upnp.h"

#include <gtest/gtest.h>

TEST(UpnpTest, SsdpRepliesAndAnnouncementsAreTakenOthersAreNot) {
    SsdpReply r;
    ASSERT_TRUE(parseSsdpReply(
        "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=100\r\nlocation:  "
        "http://10.0.0.5:1400/xml/device_description.xml \r\n"
        "ST: urn:schemas-upnp-org:device:ZonePlayer:1\r\nUSN: uuid:RINCON_1::urn:x\r\n\r\n",
        r));
    EXPECT_EQ(r.location, "http://10.0.0.5:1400/xml/device_description.xml");
    EXPECT_EQ(r.st, kZonePlayerType);
    EXPECT_EQ(r.usn, "uuid:RINCON_1::urn:x");

    ASSERT_TRUE(parseSsdpReply(
        "NOTIFY * HTTP/1.1\nNT: urn:schemas-upnp-org:device:MediaRenderer:1\nNTS: ssdp:alive\n"
        "LOCATION: http://10.0.0.6/d.xml\n",
        r));
    EXPECT_EQ(r.st, kMediaRendererType);

    // A goodbye, another client's search, an address that is not http, no
    // address at all, a truncated datagram.
    EXPECT_FALSE(parseSsdpReply(
        "NOTIFY * HTTP/1.1\r\nNT: x\r\nNTS: ssdp:byebye\r\nLOCATION: http://a/\r\n", r));
    EXPECT_FALSE(parseSsdpReply(ssdpSearchText(kMediaRendererType), r));
    EXPECT_FALSE(parseSsdpReply("HTTP/1.1 200 OK\r\nLOCATION: file:///etc/passwd\r\n", r));
    EXPECT_FALSE(parseSsdpReply("HTTP/1.1 200 OK\r\nST: x\r\n", r));
    EXPECT_FALSE(parseSsdpReply("HTTP/1.1 200", r));
    EXPECT_FALSE(parseSsdpReply("", r));
}

TEST(UpnpTest, DescriptionsGiveTheZoneNameAndAbsoluteControlAddresses) {
    // A Sonos player: the renderer is an embedded device, the room names it.
    const char* sonos = R"(<?xml version="1.0"?>
<root xmlns="urn:schemas-upnp-org:device-1-0"><device>
 <deviceType>urn:schemas-upnp-org:device:ZonePlayer:1</deviceType>
 <friendlyName>10.0.0.5 - Sonos One</friendlyName><roomName> Living Room </roomName>
 <manufacturer>Sonos, Inc.</manufacturer><UDN>uuid:RINCON_1</UDN>
 <deviceList><device><deviceType>urn:schemas-upnp-org:device:MediaRenderer:1</deviceType>
  <serviceList>
   <service><serviceType>urn:schemas-upnp-org:service:RenderingControl:1</serviceType>
    <controlURL>/MediaRenderer/RenderingControl/Control</controlURL></service>
   <service><serviceType>urn:schemas-upnp-org:service:AVTransport:1</serviceType>
    <controlURL>/MediaRenderer/AVTransport/Control</controlURL></service>
  </serviceList></device></deviceList>
</device></root>)";
    DeviceDescription d;
    std::string why;
    ASSERT_TRUE(
        parseDeviceDescription(sonos, "http://10.0.0.5:1400/xml/device_description.xml", d, why))
        << why;
    EXPECT_EQ(d.zoneName(), "Living Room");
    EXPECT_EQ(d.udn, "uuid:RINCON_1");
    EXPECT_EQ(d.avTransport, "http://10.0.0.5:1400/MediaRenderer/AVTransport/Control");
    EXPECT_EQ(d.renderingControl, "http://10.0.0.5:1400/MediaRenderer/RenderingControl/Control");

    // URLBase and relative addresses; a later version of a service; no room.
    const char* plain = R"(<root><URLBase>http://10.0.0.7:49152/base/</URLBase><device>
 <friendlyName>Kitchen &amp; Hall</friendlyName>
 <serviceList><service><serviceType>urn:schemas-upnp-org:service:AVTransport:3</serviceType>
  <controlURL>ctl/avt</controlURL></service></serviceList></device></root>)";
    ASSERT_TRUE(parseDeviceDescription(plain, "http://10.0.0.7:49152/desc.xml", d, why)) << why;
    EXPECT_EQ(d.zoneName(), "Kitchen & Hall");
    EXPECT_EQ(d.avTransport, "http://10.0.0.7:49152/base/ctl/avt");
    EXPECT_EQ(d.renderingControl, "");

    // No name at all: the host names it.
    ASSERT_TRUE(parseDeviceDescription(
        "<root><device><serviceList><service><serviceType>urn:schemas-upnp-org:service:AVTransport:"
        "1</serviceType>"
        "<controlURL>/c</controlURL></service></serviceList></device></root>",
        "http://10.0.0.8:80/d.xml", d, why));
    EXPECT_EQ(d.zoneName(), "10.0.0.8");

    // Not renderers, or not descriptions: refused with a reason.
    for (const char* bad :
         {"", "<html>not xml", "<root><device><friendlyName>Server</friendlyName></device></root>",
          "<root/>", "<other><device/></other>",
          // A control address elsewhere than plain http.
          "<root><device><serviceList><service><serviceType>urn:schemas-upnp-org:service:"
          "AVTransport:1"
          "</serviceType><controlURL>file:///etc/passwd</controlURL></service></serviceList></"
          "device></root>"}) {
        EXPECT_FALSE(parseDeviceDescription(bad, "http://h/d.xml", d, why)) << bad;
        EXPECT_FALSE(why.empty());
    }
    // An entity bomb is not expanded into memory.
    std::string bomb =
        "<?xml version=\"1.0\"?><!DOCTYPE r [<!ENTITY a \"aaaaaaaaaaaaaaaaaaaaaaaa\">";
    for (int i = 1; i < 12; i++) {
        std::string previous = i == 1 ? "a" : "a" + std::to_string(i - 1);
        bomb += "<!ENTITY a" + std::to_string(i) + " \"";
        for (int k = 0; k < 10; k++)
            bomb += "&" + previous + ";";
        bomb += "\">";
    }
    bomb +=
        "]><root><device><friendlyName>&a11;</friendlyName><serviceList><service><serviceType>"
        "urn:schemas-upnp-org:service:AVTransport:1</serviceType><controlURL>/c</controlURL></"
        "service>"
        "</serviceList></device></root>";
    EXPECT_FALSE(parseDeviceDescription(bomb, "http://h/d.xml", d, why));
}

TEST(UpnpTest, SoapTextIsEscapedAndAnswersAndFaultsAreRead) {
    std::string env = soapEnvelope(
        kAVTransportType, "SetAVTransportURI",
        {{"InstanceID", "0"}, {"CurrentURIMetaData", "<DIDL-Lite>a & \"b\"</DIDL-Lite>"}});
    EXPECT_NE(
        env.find("<u:SetAVTransportURI xmlns:u=\"urn:schemas-upnp-org:service:AVTransport:1\">"),
        std::string::npos);
    EXPECT_NE(env.find("<CurrentURIMetaData>&lt;DIDL-Lite&gt;a &amp; "
                       "&quot;b&quot;&lt;/DIDL-Lite&gt;</CurrentURIMetaData>"),
              std::string::npos);

    SoapAnswer a = parseSoapAnswer(
        "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body>"
        "<u:GetVolumeResponse xmlns:u=\"urn:schemas-upnp-org:service:RenderingControl:1\">"
        "<CurrentVolume>11</CurrentVolume></u:GetVolumeResponse></s:Body></s:Envelope>",
        200, "GetVolume");
    ASSERT_TRUE(a.ok);
    EXPECT_EQ(a.values["CurrentVolume"], "11");

    a = parseSoapAnswer(
        "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body><s:Fault>"
        "<faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring><detail>"
        "<UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\"><errorCode>718</errorCode>"
        "<errorDescription>Invalid "
        "InstanceID</errorDescription></UPnPError></detail></s:Fault></s:Body></s:Envelope>",
        500, "Play");
    EXPECT_FALSE(a.ok);
    EXPECT_EQ(a.fault, "718 Invalid InstanceID");

    // Another action's answer, an error page, nothing.
    EXPECT_FALSE(
        parseSoapAnswer("<s:Envelope xmlns:s=\"x\"><s:Body><u:PlayResponse/></s:Body></s:Envelope>",
                        200, "Stop")
            .ok);
    EXPECT_FALSE(parseSoapAnswer("<html>500</html>", 500, "Play").ok);
    EXPECT_FALSE(parseSoapAnswer("", 0, "Play").ok);
}

TEST(UpnpTest, DidlAndAddressesCarryAnyNameSafely) {
    TrackMetadata t{
        "<Song> & \"more\"", "AC/DC", "Live\x01", "http://10.0.0.1:80/hdd1/music/a%20b.flac",
        "audio/flac",        "",      185};
    std::string d = didlLite(t);
    EXPECT_NE(d.find("<dc:title>&lt;Song&gt; &amp; &quot;more&quot;</dc:title>"),
              std::string::npos);
    EXPECT_NE(d.find("<upnp:album>Live</upnp:album>"), std::string::npos);
    EXPECT_NE(d.find("protocolInfo=\"http-get:*:audio/flac:*\" duration=\"0:03:05\""),
              std::string::npos);
    EXPECT_EQ(d.find("albumArtURI"), std::string::npos);

    EXPECT_EQ(percentEncode("/music/Far & Away/01 #1?.wav", true),
              "/music/Far%20%26%20Away/01%20%231%3F.wav");
    EXPECT_EQ(percentEncode("a/b", false), "a%2Fb");
    EXPECT_EQ(percentEncode("\xC3\xA9", true), "%C3%A9");

    EXPECT_EQ(parseUpnpTime("0:03:05"), 185);
    EXPECT_EQ(parseUpnpTime("1:00:00.500"), 3600);
    EXPECT_EQ(parseUpnpTime("NOT_IMPLEMENTED"), 0);
    EXPECT_EQ(parseUpnpTime("99999999999:00:00"), 0);
    EXPECT_EQ(upnpTime(3725), "1:02:05");

    EXPECT_EQ(urlHost("http://10.0.0.5:1400/x"), "10.0.0.5");
    EXPECT_EQ(urlHost("http://user@[fe80::1]:80/"), "fe80::1");
    EXPECT_EQ(urlOrigin("http://h:1/a/b"), "http://h:1");
    EXPECT_EQ(urlOrigin("ftp://h/"), "");
}

#include "radio/radio.h"

#include "core/log.h"
#include "library/library.h"
#include "library/settings.h"
#include "playback/control.h"
#include "radio/directory.h"
#include "radio/playlist.h"
#include "radio/recorder.h"
#include "radio/stations.h"

namespace {

int radioSamples(void* dst, int frames) {
    return radioPlayer().samples(dst, frames);
}
void radioDropout() {
    radioPlayer().dropout();
}
void radioPlayedEnough() {
    radioPlayer().playedEnough();
}
void radioStop() {
    radioPlayer().requestStop();
}
int radioResume() {
    return startPlayingInternetRadio();
}

}  // namespace

void initInternetRadio() {
    RadioHooks hooks;
    hooks.samples = radioSamples;
    hooks.dropout = radioDropout;
    hooks.playedEnough = radioPlayedEnough;
    hooks.stop = radioStop;
    hooks.resume = radioResume;
    setRadioHooks(hooks);
    radioPlayer().setAudioTap(
        [](const char* data, size_t length) { recorder().tap(data, length); });
    // A recording ends with its stream.
    radioPlayer().setEndHook([] { stopRadioRecording(); });
}

void initVtuner() {
    // The list lives beside kzdb: known only once the disks are up.
    stationList().load(getLocalPath());
    std::string base = radioDirectoryBase();
    kzLog("Radio directory: %s\n", base.empty() ? "off" : base.c_str());
}

std::string getRadioName(int index) {
    return stationList().get(index).name;
}

void stopNewRadio() {
    radioPlayer().stop();
    stopRadioChannel();
}

void stopRadioRecording() {
    if (!recorder().recording()) return;
    kzLog("Radio recording stopped after %d s\n", recorder().duration());
    recorder().stop();
}

int startPlayingInternetRadioURL2(const Station& station) {
    if (!isHttpUrl(station.url)) {
        kzLog("Radio: %s is not a web address\n", station.url.c_str());
        return 0;
    }
    if (getSelectedSource() != SEL_RADIO) selectRADIO();
    setCurrentRadio(station);
    radioPlayer().play(station);
    startRadioChannel();
    return 1;
}

int startPlayingInternetRadio() {
    const RadioStation& current = getCurrentRadio();
    if (current.url.empty()) {
        kzLog("Radio: no current station\n");
        return 0;
    }
    return startPlayingInternetRadioURL2(current);
}

int startPlayingInternetRadioS(int index) {
    Station s = stationList().get(index);
    if (s.url.empty()) {
        kzLog("Radio: no station %d\n", index);
        return 0;
    }
    // Played once, a station from the directory is kept.
    stationList().keep(index);
    stationList().save();
    return startPlayingInternetRadioURL2(s);
}

int playPreset(int preset) {
    const RadioStation& p = getPreset(preset);
    if (p.url.empty()) {
        kzLog("Radio: preset %d is empty\n", preset);
        return 0;
    }
    return startPlayingInternetRadioURL2(p);
}

void restartInternetRadio() {
    if (radioPlayer().station().url.empty()) {
        startPlayingInternetRadio();
        return;
    }
    startPlayingInternetRadioURL2(radioPlayer().station());
}

void radioKey() {
    if (getSelectedSource() == SEL_RADIO) {
        if (!isRadioPlaying()) startPlayingInternetRadio();
        return;
    }
    startPlayingInternetRadio();
}

void recordKey() {
    kzLog("IRRECKEY event recording=%d\n", recorder().recording() ? 1 : 0);
    if (recorder().recording()) {
        stopRadioRecording();
        return;
    }
    std::string why;
    if (!startRadioRecording(&why)) kzLog("Radio recording not started: %s\n", why.c_str());
}

bool startRadioRecording(std::string* why) {
    if (getSelectedSource() != SEL_RADIO || !isRadioPlaying() || !radioPlayer().active()) {
        *why = "the radio is not playing";
        return false;
    }
    std::string type = radioPlayer().streamType();
    if (type == "application/vnd.apple.mpegurl") type = "video/mp2t";
    return recorder().start(getMusicDirectory(), radioPlayer().station().name, type, why);
}

RadioView radioView() {
    RadioView v;
    v.selected = getSelectedSource() == SEL_RADIO;
    Station s = radioPlayer().station();
    v.station = s.name;
    v.logo = s.logo;
    v.title = radioPlayer().title();
    v.status = radioPlayer().statusText();
    return v;
}

RecordingView recordingView() {
    RecordingView v;
    v.recording = recorder().recording();
    v.limit = recorder().limit();
    if (v.recording) {
        v.duration = recorder().duration();
        v.source = "Internet Radio";
        v.path = recorder().path();
    }
    return v;
}

void setRecordingLimit(int seconds) {
    recorder().setLimit(seconds);
}

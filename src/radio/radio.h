// The internet radio's entry points for the rest of kz: start-up, the
// station and preset identifiers, playing, the keys and events, recording
// and what the status shows.
#pragma once

#include <string>

#include "radio/player.h"

// Loads the station list and joins the radio to the player.
void initInternetRadio();
// Says where the station directory is.
void initVtuner();
// The name of station index (identifier - 5000000), "" when none.
std::string getRadioName(int index);
// Ends the stream (and its recording).
void stopNewRadio();
void stopRadioRecording();

// Plays a station: selects the radio, keeps it as the current station.
int startPlayingInternetRadioURL2(const Station& station);
// The current station (kzsettings "CurrentRadio").
int startPlayingInternetRadio();
// A station of the list by index; 0 when there is none.
int startPlayingInternetRadioS(int index);
// Plays preset 0..19; 0 when it is empty.
int playPreset(int preset);

// Event 77: the same station from the start.
void restartInternetRadio();
// Event 47, the radio key.
void radioKey();
// Event 21, the record key.
void recordKey();

// Starts recording what the radio plays; false with why when it cannot.
bool startRadioRecording(std::string* why);

struct RadioView {
    bool selected = false;  // the radio is the source
    std::string station;
    std::string title;   // the stream's title, or the station's name
    std::string status;  // radioStatus
    std::string logo;
};
RadioView radioView();

struct RecordingView {
    bool recording = false;
    int duration = 0;
    int limit = 0;
    std::string source;
    std::string path;
};
RecordingView recordingView();
void setRecordingLimit(int seconds);

#include "playback/pipe.h"

#include <signal.h>
#include <sys/stat.h>

#include "core/events.h"
#include "decoder_fixture.h"

namespace {

using namespace decoder_test;

using PipeTest = DecoderTest;

TEST_F(PipeTest, DecodesWavFlacMp3AndM4aExactlyAsFfmpegAlone) {
    const char* names[] = {"tone.wav", "tone.flac", "tone.mp3", "tone.m4a"};
    for (const char* name : names) {
        SCOPED_TRACE(name);
        std::string path = file(name);
        makeAudio(path, "anoisesrc=d=3:c=pink:r=44100:a=0.3:seed=7", {"-ac", "2"});
        Bytes expected = referencePcm(path);
        ASSERT_GT(expected.size(), 400000u);

        int slot = fetchFeeder().startTrackDecoder(0, path);
        ASSERT_GE(slot, 0);
        // Starting: a full period of silence counts as delivered.
        uint8_t period[4096];
        memset(period, 0x55, sizeof period);
        EXPECT_EQ(getPipeSamples(slot, period, 1024), 1024);
        if (isPipeStarting(slot)) {
            EXPECT_EQ(period[0] | period[4095], 0);
        }
        // Until the decoder has gone the track does not end.
        EXPECT_EQ(pipeTimeToEOF(slot), pipeRunning(slot) ? 1000 : timeInPipe(slot));

        Bytes got = drainSlot(slot);
        EXPECT_TRUE(got == expected) << got.size() << " bytes against " << expected.size();
        EXPECT_EQ(getPipeTime(slot), static_cast<int>(expected.size() / 176400));
        EXPECT_EQ(pipeTimeToEOF(slot), 0);
        // The parser follows the progress lines. What a decoder can say of
        // the duration and bitrate of a fifo varies by format; of a file it
        // reads by path it knows both.
        PipeSlot& state = decoderPipes().slot(slot);
        EXPECT_TRUE(eventually([&] { return state.pipeTime == 3; }));
        if (std::string(name) == "tone.m4a") {
            EXPECT_TRUE(
                eventually([&] { return state.pipeDuration == 3 && state.pipeBitrate > 0; }));
        }
        EXPECT_EQ(getPipeTimeLeft2(slot), 0);
        EXPECT_EQ(fetchFeeder().trackTimeToEOF(0), 0);
    }
    // Slots alternate.
    EXPECT_EQ(decoderPipes().pipeToggle(), 0);
}

TEST_F(PipeTest, StandardErrorParserReadsRealAndBrokenLines) {
    std::string path = file("parse.mp3");
    makeAudio(path, "sine=f=440:d=65", {"-ac", "2", "-b:a", "128k"});
    std::string errPath = file("parse.err");
    captureStderr(path, errPath);

    PipeSlot slot;
    FILE* in = fopen(errPath.c_str(), "r");
    ASSERT_TRUE(in);
    char line[200];
    int lines = 0;
    while (FFGetLine(in, line, sizeof line) >= 0) {
        parseFFmpegLine(line, slot);
        lines++;
    }
    fclose(in);
    // Progress comes as carriage-return separated updates: many lines.
    EXPECT_GT(lines, 10);
    EXPECT_EQ(slot.pipeDuration, 65);
    EXPECT_EQ(slot.pipeTime, 65);
    EXPECT_GE(slot.pipeBitrate, 120);
    EXPECT_LE(slot.pipeBitrate, 140);

    PipeSlot s;
    parseFFmpegLine("size=  1024kB time=00:01:05.32 bitrate=1411.2kbits/s speed=1x", s);
    EXPECT_EQ(s.pipeTime, 65);
    EXPECT_EQ(s.pipeBitrate, 0);  // "bitrate=" is the output's, not the file's
    parseFFmpegLine("  Duration: 01:02:03.50, start: 0.000000, bitrate: 320 kb/s", s);
    EXPECT_EQ(s.pipeDuration, 3723);
    EXPECT_EQ(s.pipeBitrate, 320);
    parseFFmpegLine("  Duration: N/A, start: 0.000000, bitrate: N/A", s);
    parseFFmpegLine("  Duration: 00:07", s);
    EXPECT_EQ(s.pipeDuration, 3723);
    EXPECT_EQ(s.pipeBitrate, 320);

    // A long line is cut at 199 characters and its rest does not become a line.
    std::string text = std::string(300, 'x') + "time=00:00:09.00\rtime=00:00:10.00\n";
    FILE* mem = fmemopen(text.data(), text.size(), "r");
    EXPECT_EQ(FFGetLine(mem, line, sizeof line), 199);
    EXPECT_EQ(FFGetLine(mem, line, sizeof line), 16);
    EXPECT_STREQ(line, "time=00:00:10.00");
    EXPECT_EQ(FFGetLine(mem, line, sizeof line), -1);
    fclose(mem);
}

TEST_F(PipeTest, ThirdDecoderFailsAndTheFifthFailurePostsTheStopEvent) {
    // Decoders that wait for ever on an input nobody writes.
    std::string never = file("never.fifo");
    mkfifo(never.c_str(), 0666);
    decoderPipes().startWaitPolls = 1;
    int first = startPipePlay(never);
    int second = startPipePlay(never);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
    EXPECT_EQ(pipeRunning(0), 1);
    EXPECT_EQ(pipeTimeToEOF(0), 1000);

    uiQ().clearEvents();
    for (int attempt = 1; attempt <= 4; attempt++)
        EXPECT_EQ(startPipePlay(never), -1);
    EXPECT_EQ(uiQ().length(), 0);
    EXPECT_EQ(startPipePlay(never), -1);
    EXPECT_EQ(uiQ().length(), 1);
    EXPECT_EQ(waitEvent(), 6);

    // One slot freed (its child forgotten, not yet reaped): the next start
    // takes it, and a success resets the count.
    killPipe(1);
    EXPECT_EQ(pipeRunning(1), 0);
    EXPECT_EQ(startPipePlay(never), 1);
    EXPECT_EQ(decoderPipes().pipeOpenFailCount(), 0);

    // Blocked in open(), ffmpeg only notes a SIGTERM; the reaping still ends
    // every one of them.
    killFfmpegs();
    reapAll();
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD);
}

TEST_F(PipeTest, BadInputsAndKilledChildrenEndTheirTrackCleanly) {
    // Warm up so that lazily opened descriptors (the slot's read end, the
    // log) are already counted.
    std::string good = file("good.mp3");
    makeAudio(good, "sine=f=330:d=20", {"-ac", "2"});
    ASSERT_GE(fetchFeeder().startTrackDecoder(0, good), 0);
    drainSlot(0);
    ASSERT_GE(fetchFeeder().startTrackDecoder(1, good), 0);
    drainSlot(1);
    reapAll();
    int fdsBefore = 0;
    ASSERT_TRUE(eventually([&] {
        return fetchFeeder().channel(0).track->exists == 0 &&
               fetchFeeder().channel(1).track->exists == 0;
    }));
    fdsBefore = openFds();

    std::string notAudio = file("notes.mp3");
    std::ofstream(notAudio) << std::string(100000, 'k');
    std::string empty = file("empty.flac");
    std::ofstream(empty).close();
    std::string truncated = file("truncated.mp3");
    Bytes whole = readAll(good);
    std::ofstream(truncated, std::ios::binary)
        .write(reinterpret_cast<char*>(whole.data()), whole.size() / 3 + 17);

    int channel = 0;
    for (const std::string& path : {notAudio, empty, truncated}) {
        SCOPED_TRACE(path);
        int slot = fetchFeeder().startTrackDecoder(channel, path);
        ASSERT_GE(slot, 0);
        Bytes pcm = drainSlot(slot);
        if (path == truncated) {
            EXPECT_GT(pcm.size(), 176400u * 5);
            EXPECT_LT(pcm.size(), 176400u * 8);
        } else {
            EXPECT_EQ(pcm.size(), 0u);
        }
        // The output callback ends the track only on a slot that no longer
        // counts as starting.
        EXPECT_FALSE(isPipeStarting(slot));
        EXPECT_TRUE(eventually([&] { return fetchFeeder().channel(channel).track->exists == 0; }));
        channel ^= 1;
    }

    // Killed mid-track: what was decoded plays out, then the track ends.
    int slot = fetchFeeder().startTrackDecoder(channel, good);
    ASSERT_GE(slot, 0);
    uint8_t period[4096];
    while (isPipeStarting(slot))
        getPipeSamples(slot, period, 1024);
    kill(decoderPipes().slot(slot).pipePid, SIGKILL);
    Bytes rest = drainSlot(slot);
    EXPECT_LT(rest.size(), 176400u * 20);
    EXPECT_TRUE(eventually([&] { return fetchFeeder().channel(channel).track->exists == 0; }));

    // A decoder program that cannot run: the track ends at once.
    setenv("KZ_FFMPEG", file("no-such-ffmpeg").c_str(), 1);
    setenv("KZ_ROOT", testRoot().c_str(), 1);
    configureHostMode();
    slot = fetchFeeder().startTrackDecoder(0, good);
    EXPECT_EQ(drainSlot(slot).size(), 0u);
    EXPECT_FALSE(isPipeStarting(slot));
    EXPECT_TRUE(eventually([&] { return fetchFeeder().channel(0).track->exists == 0; }));
    unsetenv("KZ_FFMPEG");
    configureHostMode();

    // Stopped while playing: the child is reaped, not left a zombie.
    slot = fetchFeeder().startTrackDecoder(1, good);
    getPipeSamples(slot, period, 1024);
    stopPipe(slot);
    reapAll();
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD);
    EXPECT_TRUE(eventually([&] { return fetchFeeder().channel(1).track->exists == 0; }));

    // None left behind; a slot's read end that was still open at the start
    // may have been closed by a later start, so fewer is fine.
    EXPECT_TRUE(eventually([&] { return openFds() <= fdsBefore; }))
        << openFds() << " open, " << fdsBefore << " before";
}

TEST_F(PipeTest, HighResolutionWavIsFedFasterThanItPlays) {
    // 96 kHz, 32-bit stereo: 768 KB/s in, the most any library file asks.
    std::string path = file("hires.wav");
    makeAudio(path, "sine=f=1000:r=96000:d=5", {"-ac", "2", "-c:a", "pcm_s32le"});
    decoderPipes().highResolution = true;
    int slot = fetchFeeder().startTrackDecoder(0, path);
    ASSERT_GE(slot, 0);

    // Taken at the pace of the sound card: every period short of a full one
    // before the file's last frame is a gap the listener hears.
    const long long expected = 5 * 96000;
    long long delivered = 0;
    int gaps = 0;
    uint8_t period[1024 * 8];
    auto next = std::chrono::steady_clock::now();
    auto deadline = next + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        int frames = getPipeSamples(slot, period, 1024);
        if (frames == 0 && !pipeRunning(slot) && getPipeOccupancy(slot) == 0) break;
        if (!isPipeStarting(slot)) {
            delivered += frames;
            if (frames < 1024 && delivered < expected) gaps++;
        }
        next += std::chrono::microseconds(1024 * 1000000LL / 96000);
        std::this_thread::sleep_until(next);
    }
    decoderPipes().highResolution = false;
    EXPECT_EQ(delivered, expected);
    // One late wake-up of this thread on a busy machine is not the feeder's.
    EXPECT_LE(gaps, 1);
}

TEST_F(PipeTest, RadioStartsOnlyWithAQuarterOfTheFifo) {
    std::string path = file("station.mp3");
    makeAudio(path, "sine=f=500:d=6", {"-ac", "2"});
    Bytes stream = readAll(path);
    decoderPipes().radioSelected = true;

    FILE* out = nullptr;
    int slot = startRadioPipe2(&out);
    ASSERT_GE(slot, 0);
    ASSERT_TRUE(out);
    EXPECT_EQ(getRadioPipeName(), hostPath("/tmp/radioPipe1"));
    // Most of the stream now, the rest after a dropout.
    std::atomic<bool> resume{false};
    std::thread writer([&] {
        size_t first = stream.size() * 6 / 10;
        fwrite(stream.data(), 1, first, out);
        fflush(out);
        while (!resume)
            usleep(1000);
        fwrite(stream.data() + first, 1, stream.size() - first, out);
        fclose(out);
    });
    uint8_t period[4096];
    while (isPipeStarting(slot)) {
        EXPECT_LE(getPipeOccupancy(slot), DecoderPipes::kFifoBytes / 4);
        getPipeSamples(slot, period, 1024);
    }
    // The start ended with the read that crossed a quarter.
    EXPECT_GT(getPipeOccupancy(slot) + 4096, DecoderPipes::kFifoBytes / 4);
    // A dropout: silent again until the stream brings more.
    decoderPipes().slot(slot).pipeUnderrunFlag = 1;
    rePreFill(slot);
    EXPECT_EQ(isPipeStarting(slot), 1);
    resume = true;
    drainSlot(slot);
    writer.join();
    EXPECT_EQ(decoderPipes().slot(slot).pipeUnderrunFlag, 0);

    // The next station gets a new input fifo and the old one is removed. It
    // ends before a quarter is there: what it gave still plays.
    std::string shortPath = file("short.mp3");
    makeAudio(shortPath, "sine=f=500:d=1", {"-ac", "2"});
    Bytes shortStream = readAll(shortPath);
    slot = startRadioPipe2(&out);
    ASSERT_GE(slot, 0);
    fwrite(shortStream.data(), 1, shortStream.size(), out);
    fclose(out);
    EXPECT_FALSE(fs::exists(hostPath("/tmp/radioPipe1")));
    EXPECT_TRUE(fs::exists(hostPath("/tmp/radioPipe2")));
    EXPECT_GT(drainSlot(slot).size(), 100000u);
}

}  // namespace

namespace {

using namespace decoder_test;

using PipeArgsTest = DecoderTest;

// A stand-in decoder that writes down how it was called.
std::string fakeDecoder(const std::string& dir) {
    std::string script = dir + "/fake-ffmpeg";
    std::ofstream(script) << "#!/bin/sh\necho \"$@\" >> " << dir << "/args.txt\n";
    chmod(script.c_str(), 0755);
    return script;
}

TEST_F(PipeArgsTest, DecoderIsCalledWithExactlyTheFormatArguments) {
    setenv("KZ_ROOT", testRoot().c_str(), 1);
    setenv("KZ_FFMPEG", fakeDecoder(testRoot()).c_str(), 1);
    configureHostMode();
    std::string input = "/music/A b/it's; $(rm -rf x).mp3";
    int slot = startPipePlay(input);
    drainSlot(slot);
    decoderPipes().highResolution = true;
    slot = startPipePlay(input);
    drainSlot(slot);
    decoderPipes().highResolution = false;
    unsetenv("KZ_FFMPEG");
    configureHostMode();

    std::ifstream in(testRoot() + "/args.txt");
    std::string normal, high;
    std::getline(in, normal);
    std::getline(in, high);
    // The name reaches the decoder as one argument, untouched by any shell.
    EXPECT_EQ(normal, "-y -hide_banner -threads 1 -i " + input +
                          " -ac 2 -acodec pcm_s16le -f u16le -ar 44100 " +
                          hostPath("/tmp/kzpipe1"));
    EXPECT_EQ(high, "-y -hide_banner -threads 1 -i " + input +
                        " -ac 2 -acodec pcm_s32le -f s32le -ar 96000 " + hostPath("/tmp/kzpipe2"));
}

TEST_F(PipeArgsTest, TimesComeFromTheFifoTheProgressAndTheFramesPlayed) {
    // No child on slot 1: its time to the end is what the ring holds.
    PipeSlot& s = decoderPipes().slot(1);
    clearPipe(1);
    uint8_t* at;
    ASSERT_GE(fifoContiguous(s.fifo, &at), 705600);
    fifoAdd(s.fifo, 705600);
    EXPECT_EQ(pipeTimeToEOF(1), 4);
    decoderPipes().highResolution = true;
    EXPECT_EQ(timeInPipe(1), 1);  // the kept divisor: 384000, not 768000
    decoderPipes().highResolution = false;
    EXPECT_NEAR(getFifoPercentage(1), 70.56, 1e-9);

    setPipeDuration(1, 100);
    s.pipeTime = 90;
    EXPECT_EQ(getPipeTimeLeft(1), 14);
    setPipeTime(1, 250);
    EXPECT_EQ(s.pipeSamples, 1102500);
    EXPECT_EQ(getPipeTime(1), 25);
    EXPECT_EQ(getPipeTimeLeft2(1), 75);
    setPipeDuration(1, 10);
    EXPECT_EQ(getPipeTimeLeft2(1), 0);
    EXPECT_EQ(getPipeTimeLeft(1), 0);
    clearFifoForPipe(1);
    EXPECT_EQ(getPipeOccupancy(1), 0);
}

}  // namespace

#include "library/tags.h"

#include <cjson/cJSON.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/log.h"
#include "core/paths.h"
#include "core/process.h"

namespace {

constexpr size_t kMostOutput = 1 << 20;

struct JsonDeleter {
    void operator()(cJSON* j) const { cJSON_Delete(j); }
};

// Tag keys come in any letter case ("ARTIST" from Vorbis comments).
std::string tag(const cJSON* tags, const char* key) {
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, tags) {
        if (item->string && strcasecmp(item->string, key) == 0 && cJSON_IsString(item))
            return item->valuestring;
    }
    return "";
}

void takeTags(FileTags& t, const cJSON* tags) {
    if (!cJSON_IsObject(tags)) return;
    auto fill = [&](std::string& field, const char* key) {
        if (field.empty()) field = tag(tags, key);
    };
    fill(t.title, "title");
    fill(t.artist, "artist");
    fill(t.albumArtist, "album_artist");
    fill(t.albumArtist, "albumartist");
    fill(t.album, "album");
    fill(t.track, "track");
    fill(t.track, "tracknumber");
    fill(t.date, "date");
    fill(t.genre, "genre");
}

double number(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    if (cJSON_IsString(item)) return atof(item->valuestring);
    if (cJSON_IsNumber(item)) return item->valuedouble;
    return 0;
}

}  // namespace

FileTags readTags(const std::string& path) {
    FileTags t;
    std::string prober = ffprobePath();
    std::string text;
    int rc = programOutput(
        {prober, "-v", "error", "-print_format", "json", "-show_format", "-show_streams", path},
        &text, kMostOutput);
    if (rc < 0) {
        kzLog("Cannot run %s\n", prober.c_str());
        return t;
    }
    std::unique_ptr<cJSON, JsonDeleter> root(cJSON_Parse(text.c_str()));
    if (!root || rc != 0) return t;
    const cJSON* format = cJSON_GetObjectItemCaseSensitive(root.get(), "format");
    if (!cJSON_IsObject(format)) return t;
    t.ok = true;
    takeTags(t, cJSON_GetObjectItemCaseSensitive(format, "tags"));
    t.duration = number(format, "duration");
    t.bitRate = static_cast<long long>(number(format, "bit_rate"));
    const cJSON* stream = nullptr;
    cJSON_ArrayForEach(stream, cJSON_GetObjectItemCaseSensitive(root.get(), "streams")) {
        const cJSON* type = cJSON_GetObjectItemCaseSensitive(stream, "codec_type");
        if (!cJSON_IsString(type) || strcmp(type->valuestring, "audio") != 0) continue;
        const cJSON* codec = cJSON_GetObjectItemCaseSensitive(stream, "codec_name");
        if (cJSON_IsString(codec)) t.codec = codec->valuestring;
        t.sampleRate = static_cast<int>(number(stream, "sample_rate"));
        t.channels = static_cast<int>(number(stream, "channels"));
        // Ogg keeps its comments on the stream.
        takeTags(t, cJSON_GetObjectItemCaseSensitive(stream, "tags"));
        break;
    }
    return t;
}

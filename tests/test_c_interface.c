/* The C interface, from C. What the calls do is tested in C++; here: that they do it, what an
 * application gets that asks for nothing, and what a wrong argument answers. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "b_frames.h"
#include "kx_mp4/kx_mp4_c.h"

enum { PICTURES = 20, MOST = 1 << 16 };

static int failures = 0;

#define CHECK(condition)                                              \
    do {                                                              \
        if (!(condition)) {                                           \
            fprintf(stderr, "%d: wrong: %s\n", __LINE__, #condition); \
            ++failures;                                               \
        }                                                             \
    } while (0)

static const char* folder;

static const char* in_folder(const char* name) {
    static char paths[4][1024];
    static int next = 0;
    char* const path = paths[next++ % 4];
    snprintf(path, sizeof paths[0], "%s/%s", folder, name);
    return path;
}

struct memory {
    uint8_t bytes[MOST];
    int64_t size, position;
    int writes_left; /* then the disk is full */
};

static int64_t memory_tell(void* user) {
    return ((struct memory*)user)->position;
}

static int memory_seek(void* user, int64_t offset, int whence) {
    struct memory* const memory = user;
    memory->position = offset + (whence == SEEK_SET   ? 0
                                 : whence == SEEK_CUR ? memory->position
                                                      : memory->size);
    return 1;
}

static int memory_write(void* user, const void* buffer, uint32_t size) {
    struct memory* const memory = user;
    errno = ENOSPC;
    if (memory->writes_left-- == 0 || memory->position + size > MOST) return 0;
    memcpy(memory->bytes + memory->position, buffer, size);
    memory->position += size;
    if (memory->position > memory->size) memory->size = memory->position;
    return 1;
}

static struct memory* read_file(const char* path) {
    struct memory* const memory = calloc(1, sizeof *memory);
    FILE* const file = fopen(path, "rb");
    if (file == NULL) return memory;
    memory->size = (int64_t)fread(memory->bytes, 1, MOST, file);
    fclose(file);
    return memory;
}

static int contains(const struct memory* memory, const char* bytes, size_t size) {
    int64_t i;
    for (i = 0; i + (int64_t)size <= memory->size; ++i)
        if (memcmp(memory->bytes + i, bytes, size) == 0) return 1;
    return 0;
}

static void copy_file(const char* from, const char* to) {
    struct memory* const memory = read_file(from);
    FILE* const file = fopen(to, "wb");
    CHECK(file != NULL &&
          fwrite(memory->bytes, 1, (size_t)memory->size, file) == (size_t)memory->size);
    if (file != NULL) fclose(file);
    free(memory);
}

static int same_bytes(const struct memory* memory, const char* path) {
    struct memory* const file = read_file(path);
    const int same =
        file->size == memory->size && memcmp(file->bytes, memory->bytes, (size_t)file->size) == 0;
    free(file);
    return same;
}

/* Both tracks, then pictures with their sound. */
static mp4_status_t fill(kx_mp4_muxer* muxer) {
    kx_mp4_video_track video;
    kx_mp4_audio_track audio;
    uint32_t i;
    mp4_status_t status = MP4_STATUS_SUCCESS;
    kx_mp4_video_track_init(&video, sizeof video);
    kx_mp4_audio_track_init(&audio, sizeof audio);
    video.timescale = 25;
    video.frame_duration = 1;
    video.width = video.height = B_FRAMES_SIZE;
    audio.channels = 1;
    CHECK(kx_mp4_muxer_set_video_track(muxer, &video) == MP4_STATUS_SUCCESS);
    CHECK(kx_mp4_muxer_set_audio_track(muxer, &audio) == MP4_STATUS_SUCCESS);
    for (i = 0; i < PICTURES && status == MP4_STATUS_SUCCESS; ++i) {
        const struct b_frames_picture* const picture = &b_frames[i % B_FRAMES_GROUP];
        status = kx_mp4_muxer_write_video(muxer, picture->bytes, picture->size,
                                          i - i % B_FRAMES_GROUP + picture->shown_as + 1, i);
        if (status == MP4_STATUS_SUCCESS)
            status = kx_mp4_muxer_write_audio(muxer, b_frames_silence, 4, i * 1920);
    }
    return status;
}

static void records_the_same_by_every_output(void) {
    struct memory* const memory = calloc(1, sizeof *memory);
    const mp4_io_callbacks_t callbacks = {memory,      NULL, NULL,        memory_tell,
                                          memory_seek, NULL, memory_write};
    const char* const paths[2] = {in_folder("\xC3\xA4 mov.mp4"), in_folder("\xE2\x82\xAC.mp4")};
    const char* const copy = in_folder("copy.mp4");
    char info[1100];
    kx_mp4_muxer* const muxer = kx_mp4_muxer_new();
    kx_mp4_file_options options;
    mp4_statistics_t statistics;
    int i;
    memory->writes_left = -1;
    kx_mp4_file_options_init(&options, sizeof options);
    options.output = &callbacks;
    options.flags &= ~(uint32_t)KX_MP4_FLAG_REPAIR_INFO;
    CHECK(kx_mp4_muxer_create(muxer, "anything", &options) == MP4_STATUS_SUCCESS);
    CHECK(fill(muxer) == MP4_STATUS_SUCCESS);
    CHECK(kx_mp4_muxer_close(muxer) == MP4_STATUS_SUCCESS);
    CHECK(contains(memory, "ftyp", 4) && contains(memory, "ctts", 4) &&
          contains(memory, "co64", 4));

    for (i = 0; i < 2; ++i) {
        kx_mp4_file_options_init(&options, sizeof options);
        options.buffer_bytes = i == 0 ? 0 : 4096;
        CHECK(kx_mp4_muxer_create(muxer, paths[i], i == 0 ? NULL : &options) == MP4_STATUS_SUCCESS);
        CHECK(fill(muxer) == MP4_STATUS_SUCCESS);
        CHECK(kx_mp4_muxer_duration_ms(muxer) == 1000 * PICTURES / 25);
        memset(&statistics, 0, sizeof statistics);
        statistics.struct_size = sizeof statistics;
        CHECK(kx_mp4_muxer_get_statistics(muxer, &statistics) == MP4_STATUS_SUCCESS);
        CHECK(statistics.video.samples == PICTURES && statistics.repair_info_active == 1);
        CHECK(kx_mp4_muxer_flush(muxer) == MP4_STATUS_SUCCESS);
        copy_file(paths[i], copy);
        snprintf(info, sizeof info, "%s.info", paths[i]);
        copy_file(info, in_folder("copy.mp4.info"));
        CHECK(kx_mp4_muxer_is_open(muxer) == 1);
        kx_mp4_muxer_close(muxer);
        CHECK(kx_mp4_muxer_file_size(muxer) == memory->size);
        CHECK(same_bytes(memory, paths[i]));
    }
    kx_mp4_muxer_free(muxer);

    { /* What was copied before it was finished becomes the same. */
        kx_mp4_repair_options repair;
        kx_mp4_repair_report report;
        kx_mp4_repair_options_init(&repair, sizeof repair);
        repair.in_place = 1;
        memset(&report, 0, sizeof report);
        report.struct_size = sizeof report;
        CHECK(kx_mp4_repair(copy, &repair, &report) == KX_MP4_REPAIR_WHOLE);
        CHECK(report.video.frames_kept == PICTURES && report.composition_offsets == 1);
        CHECK(report.reason[0] == 0 && same_bytes(memory, copy));
        CHECK(kx_mp4_repair(copy, NULL, &report) == KX_MP4_REPAIR_FAILED && report.reason[0] != 0);
    }
    free(memory);
}

static void free_finishes_the_file(void) {
    const char* const path = in_folder("freed.mp4");
    kx_mp4_muxer* const muxer = kx_mp4_muxer_new();
    kx_mp4_repair_report report = {0};
    struct memory* finished;
    CHECK(kx_mp4_muxer_create(muxer, path, NULL) == MP4_STATUS_SUCCESS);
    CHECK(fill(muxer) == MP4_STATUS_SUCCESS);
    kx_mp4_muxer_free(muxer);
    report.struct_size = offsetof(kx_mp4_repair_report, reason_time_ms);
    CHECK(kx_mp4_repair(path, NULL, &report) == KX_MP4_REPAIR_FAILED); /* no .info any more */
    finished = read_file(path);
    CHECK(same_bytes(finished, in_folder("\xE2\x82\xAC.mp4")));
    free(finished);
}

static void count_errors(void* user, int level, const char* source, int line, const char* operation,
                         const char* text) {
    if (level == KX_MP4_LOG_ERROR && source && line && operation && text) ++*(int*)user;
}

static void failures_have_a_status_and_a_text(void) {
    struct memory* const memory = calloc(1, sizeof *memory);
    const mp4_io_callbacks_t callbacks = {memory,      NULL, NULL,        memory_tell,
                                          memory_seek, NULL, memory_write};
    kx_mp4_muxer* const muxer = kx_mp4_muxer_new();
    kx_mp4_file_options options;
    char text[512];
    int errors = 0;
    CHECK(kx_mp4_muxer_last_error(muxer, NULL, 0) == 0);
    CHECK(kx_mp4_muxer_set_log(muxer, count_errors, &errors) == MP4_STATUS_SUCCESS);
    CHECK(kx_mp4_muxer_create(muxer, in_folder("none/x.mp4"), NULL) ==
          MP4_STATUS_NO_SUCH_FILE_OR_DIR);
    CHECK(errors > 0);
    CHECK(kx_mp4_muxer_last_error(muxer, text, sizeof text) == strlen(text));
    CHECK(strstr(text, "kx_mp4_muxer_create: MP4_STATUS_NO_SUCH_FILE_OR_DIR: ") == text);
    CHECK(kx_mp4_muxer_last_error(muxer, text, 7) > 7 && strcmp(text, "kx_mp4") == 0);

    memory->writes_left = 6;
    kx_mp4_file_options_init(&options, sizeof options);
    options.output = &callbacks;
    options.flags = 0;
    CHECK(kx_mp4_muxer_create(muxer, "x", &options) == MP4_STATUS_SUCCESS);
    CHECK(fill(muxer) == MP4_STATUS_NO_SPACE_LEFT);
    CHECK(kx_mp4_muxer_is_open(muxer) == 0);
    CHECK(kx_mp4_muxer_close(muxer) == MP4_STATUS_NO_SPACE_LEFT);
    CHECK(kx_mp4_muxer_write_audio(muxer, b_frames_silence, 4, 0) == MP4_STATUS_FILE_NOT_OPEN);
    kx_mp4_muxer_free(muxer);
    free(memory);
}

static void wrong_arguments_are_refused(void) {
    struct {
        kx_mp4_video_track track;
        uint64_t added; /* by a later header */
    } later;
    kx_mp4_muxer* const muxer = kx_mp4_muxer_new();
    kx_mp4_file_options options;
    kx_mp4_audio_track audio;
    kx_mp4_timecode_track timecode;
    mp4_statistics_t statistics = {0};
    const struct {
        size_t struct_size;
        mp4_status_t status;
    } sizes[] = {{0, MP4_STATUS_INVALID_PARAMETER},
                 {sizeof(size_t) - 1, MP4_STATUS_INVALID_PARAMETER},
                 {(size_t)-1, MP4_STATUS_INVALID_PARAMETER},
                 {sizeof options - sizeof options.output / 2, MP4_STATUS_INVALID_PARAMETER},
                 {offsetof(kx_mp4_file_options, composition_offsets), MP4_STATUS_SUCCESS}};
    size_t i;
    for (i = 0; i < sizeof sizes / sizeof sizes[0]; ++i) {
        kx_mp4_file_options_init(&options, sizeof options);
        options.struct_size = sizes[i].struct_size;
        CHECK(kx_mp4_muxer_create(muxer, in_folder("a.mp4"), &options) == sizes[i].status);
    }
    CHECK(kx_mp4_muxer_create(muxer, in_folder("b.mp4"), NULL) ==
          MP4_STATUS_DEVICE_OR_RESOURCE_BUSY);

    memset(&later, 0, sizeof later);
    kx_mp4_video_track_init(&later.track, sizeof later);
    later.track.width = later.track.height = 16;
    CHECK(kx_mp4_muxer_set_video_track(muxer, &later.track) == MP4_STATUS_SUCCESS);
    later.added = 1;
    CHECK(kx_mp4_muxer_set_video_track(muxer, &later.track) == MP4_STATUS_INVALID_PARAMETER);
    later.added = 0;
    later.track.sps = b_frames_silence;
    later.track.sps_size = 32768;
    CHECK(kx_mp4_muxer_set_video_track(muxer, &later.track) == MP4_STATUS_INVALID_PARAMETER);
    later.track.sps = NULL;
    later.track.sps_size = 0;
    later.track.codec = 9;
    CHECK(kx_mp4_muxer_set_video_track(muxer, &later.track) == MP4_STATUS_INVALID_CODEC_TYPE);
    kx_mp4_audio_track_init(&audio, sizeof audio);
    audio.sample_rate = 96000;
    CHECK(kx_mp4_muxer_set_audio_track(muxer, &audio) == MP4_STATUS_SUCCESS);
    audio.sample_rate = 70000;
    CHECK(kx_mp4_muxer_set_audio_track(muxer, &audio) == MP4_STATUS_INVALID_PARAMETER);
    kx_mp4_timecode_track_init(&timecode, sizeof timecode);
    timecode.timescale = 0;
    CHECK(kx_mp4_muxer_set_timecode_track(muxer, &timecode) == MP4_STATUS_INVALID_PARAMETER);
    CHECK(kx_mp4_muxer_get_statistics(muxer, &statistics) == MP4_STATUS_INVALID_PARAMETER);
    kx_mp4_muxer_free(muxer);

    kx_mp4_muxer_free(NULL);
    kx_mp4_recorder_free(NULL);
    kx_mp4_file_options_init(NULL, 100);
    CHECK(kx_mp4_muxer_close(NULL) == MP4_STATUS_INVALID_HANDLE);
    CHECK(kx_mp4_recorder_cut(NULL) == MP4_STATUS_INVALID_HANDLE);
    CHECK(kx_mp4_muxer_is_open(NULL) == 0 && kx_mp4_muxer_last_error(NULL, NULL, 0) == 0);
    CHECK(kx_mp4_repair(NULL, NULL, NULL) == KX_MP4_REPAIR_FAILED);
}

static void the_presentation_reaches_the_file(void) {
    struct memory* const memory = calloc(1, sizeof *memory);
    const mp4_io_callbacks_t callbacks = {memory,      NULL, NULL,        memory_tell,
                                          memory_seek, NULL, memory_write};
    kx_mp4_muxer* const muxer = kx_mp4_muxer_new();
    kx_mp4_file_options options;
    mp4_video_shape_t shape;
    struct {
        mp4_video_colour_t colour;
        uint64_t added; /* by a later header */
    } later;
    memory->writes_left = -1;
    kx_mp4_file_options_init(&options, sizeof options);
    options.output = &callbacks;
    options.flags = 0;
    CHECK(kx_mp4_muxer_create(muxer, "x", &options) == MP4_STATUS_SUCCESS);
    CHECK(kx_mp4_muxer_set_strict_form(muxer, 1) == MP4_STATUS_SUCCESS);
    CHECK(kx_mp4_muxer_set_all_parameter_sets(muxer, 1) == MP4_STATUS_SUCCESS);
    CHECK(kx_mp4_muxer_add_parameter_set(muxer, NULL, 9) == MP4_STATUS_INVALID_VIDEO_TRACK);
    kx_mp4_video_shape_init(&shape, sizeof shape);
    kx_mp4_video_colour_init(&later.colour, sizeof later);
    CHECK(shape.from_stream == 1 && later.colour.from_stream == 1 && later.added == 0);
    shape.pixel_width = 4;
    CHECK(kx_mp4_muxer_set_video_shape(muxer, &shape) == MP4_STATUS_INVALID_PARAMETER);
    shape.pixel_height = 3;
    CHECK(kx_mp4_muxer_set_video_shape(muxer, &shape) == MP4_STATUS_SUCCESS);
    later.colour.primaries = later.colour.transfer = later.colour.matrix = 9;
    CHECK(kx_mp4_muxer_set_video_colour(muxer, &later.colour) == MP4_STATUS_SUCCESS);
    later.added = 1;
    CHECK(kx_mp4_muxer_set_video_colour(muxer, &later.colour) == MP4_STATUS_INVALID_PARAMETER);
    CHECK(kx_mp4_muxer_set_video_colour(muxer, NULL) == MP4_STATUS_INVALID_PARAMETER);
    CHECK(kx_mp4_muxer_set_timeline(muxer, 1) == MP4_STATUS_SUCCESS);
    CHECK(kx_mp4_muxer_set_audio_priming(muxer, 1024) == MP4_STATUS_SUCCESS);
    CHECK(fill(muxer) == MP4_STATUS_SUCCESS);
    CHECK(kx_mp4_muxer_set_timeline(muxer, 0) == MP4_STATUS_INVALID_PARAMETER);
    CHECK(kx_mp4_muxer_close(muxer) == MP4_STATUS_SUCCESS);
    CHECK(contains(memory, "pasp\0\0\0\4\0\0\0\3", 12));
    CHECK(contains(memory, "colrnclx\0\11\0\11\0\11", 14));
    /* The sound's edit: from sample 1024 on, at the rate 1. */
    CHECK(contains(memory, "\0\0\4\0\0\1\0\0", 8));
    kx_mp4_muxer_free(muxer);
    free(memory);
}

static int name_segment(void* user, uint64_t number, int64_t due, char* path, size_t size) {
    (void)user;
    return due > 0 && snprintf(path, size, "%s/live%d.mp4", folder, (int)number) > 0;
}

static void sum_segments(void* user, const kx_mp4_segment* segment) {
    uint64_t* const sums = user;
    CHECK(segment->status == MP4_STATUS_SUCCESS && strstr(segment->path, "/live") != NULL);
    ++sums[0];
    sums[1] += segment->video_samples;
}

static void the_recorder_cuts_segments(void) {
    uint64_t sums[2] = {0, 0};
    uint32_t i;
    kx_mp4_recorder* const recorder = kx_mp4_recorder_new();
    kx_mp4_recorder_options options;
    kx_mp4_recorder_statistics statistics = {0};
    kx_mp4_video_track video;
    char text[256];
    kx_mp4_recorder_options_init(&options, sizeof options);
    CHECK(kx_mp4_recorder_start(recorder, &options) == MP4_STATUS_INVALID_PARAMETER);
    CHECK(kx_mp4_recorder_last_error(recorder, text, sizeof text) > 0);
    options.name = name_segment;
    options.on_segment = sum_segments;
    options.user = sums;
    CHECK(kx_mp4_recorder_start(recorder, &options) == MP4_STATUS_SUCCESS);
    kx_mp4_video_track_init(&video, sizeof video);
    video.timescale = 25;
    video.width = video.height = B_FRAMES_SIZE;
    CHECK(kx_mp4_recorder_set_video_track(recorder, &video) == MP4_STATUS_SUCCESS);
    for (i = 0; i < PICTURES; ++i) {
        const struct b_frames_picture* const picture = &b_frames[i % B_FRAMES_GROUP];
        if (i == 7) CHECK(kx_mp4_recorder_cut(recorder) == MP4_STATUS_SUCCESS);
        CHECK(kx_mp4_recorder_write_video(recorder, picture->bytes, picture->size,
                                          i - i % B_FRAMES_GROUP + picture->shown_as + 1,
                                          i) == MP4_STATUS_SUCCESS);
    }
    CHECK(kx_mp4_recorder_stop(recorder, 0) == MP4_STATUS_SUCCESS);
    CHECK(sums[0] == 2 && sums[1] == PICTURES);
    statistics.struct_size = sizeof statistics;
    CHECK(kx_mp4_recorder_get_statistics(recorder, &statistics) == MP4_STATUS_SUCCESS);
    CHECK(statistics.frames_written == PICTURES && statistics.segments_finished == 2);
    kx_mp4_recorder_free(recorder);
}

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    folder = argv[1];
    records_the_same_by_every_output();
    free_finishes_the_file();
    failures_have_a_status_and_a_text();
    wrong_arguments_are_refused();
    the_presentation_reaches_the_file();
    the_recorder_cuts_segments();
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

/* A recording from C: H.264 with B-frames and AAC sound into one file, which is repaired at the
 * next start when this one ends before it is finished.
 *
 *   record_c OUTPUT              repairs OUTPUT if an earlier run left it unfinished, else records
 *   record_c OUTPUT PICTURES     ends in the middle, after so many pictures, as a crash does
 */
#include <kx_mp4/kx_mp4_c.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "b_frames.h"

enum { PICTURES = 50, TIMESCALE = 90000, PICTURE_TICKS = 3600 };

static void check(kx_mp4_muxer* muxer, mp4_status_t status) {
    char text[512];
    if (status == MP4_STATUS_SUCCESS) return;
    kx_mp4_muxer_last_error(muxer, text, sizeof text);
    fprintf(stderr, "%s\n", text);
    exit(EXIT_FAILURE);
}

static void declare(kx_mp4_muxer* muxer) {
    kx_mp4_video_track video;
    kx_mp4_audio_track audio;

    kx_mp4_video_track_init(&video, sizeof video); /* H.264, parameter sets from the stream */
    video.timescale = TIMESCALE;
    video.frame_duration = PICTURE_TICKS;
    video.width = video.height = B_FRAMES_SIZE;
    check(muxer, kx_mp4_muxer_set_video_track(muxer, &video));

    kx_mp4_audio_track_init(&audio, sizeof audio); /* AAC LC, 48000 Hz */
    audio.channels = 1;
    check(muxer, kx_mp4_muxer_set_audio_track(muxer, &audio));
    check(muxer, kx_mp4_muxer_set_metadata(muxer, "title", KX_MP4_METADATA_TEXT, "Grey", 0, NULL));
}

static void write_picture(kx_mp4_muxer* muxer, uint32_t number) {
    const struct b_frames_picture* picture = &b_frames[number % B_FRAMES_GROUP];
    const uint32_t group = number - number % B_FRAMES_GROUP;
    /* One picture later than decoded, so that no B-frame is shown before it can be decoded. */
    const uint64_t pts = (uint64_t)(group + picture->shown_as + 1) * PICTURE_TICKS;
    const uint64_t dts = (uint64_t)number * PICTURE_TICKS;
    check(muxer, kx_mp4_muxer_write_video(muxer, picture->bytes, picture->size, pts, dts));
}

static void record(const char* path, uint32_t stop_after) {
    kx_mp4_muxer* muxer = kx_mp4_muxer_new();
    uint64_t sound = 0;
    uint32_t number;
    if (muxer == NULL) exit(EXIT_FAILURE);

    check(muxer, kx_mp4_muxer_create(muxer, path, NULL));
    declare(muxer);
    for (number = 0; number < PICTURES; ++number) {
        if (number == stop_after) _Exit(EXIT_SUCCESS);
        write_picture(muxer, number);
        for (; sound * TIMESCALE <= (uint64_t)number * PICTURE_TICKS * 48000; sound += 1024)
            check(muxer, kx_mp4_muxer_write_audio(muxer, b_frames_silence, sizeof b_frames_silence,
                                                  sound));
    }
    check(muxer, kx_mp4_muxer_close(muxer)); /* only now the file plays */
    printf("%s: %lld bytes\n", path, (long long)kx_mp4_muxer_file_size(muxer));
    kx_mp4_muxer_free(muxer);
}

/* The repair info file is there as long as the recording is not finished. */
static int is_unfinished(const char* path) {
    char info[1024];
    FILE* file;
    snprintf(info, sizeof info, "%s.info", path);
    file = fopen(info, "rb");
    if (file != NULL) fclose(file);
    return file != NULL;
}

static int repair(const char* path) {
    kx_mp4_repair_options options;
    kx_mp4_repair_report report;
    kx_mp4_repair_options_init(&options, sizeof options);
    options.in_place = 1;
    memset(&report, 0, sizeof report);
    report.struct_size = sizeof report;
    if (kx_mp4_repair(path, &options, &report) != KX_MP4_REPAIR_WHOLE) {
        fprintf(stderr, "%s: %s\n", path, report.reason);
        return EXIT_FAILURE;
    }
    printf("%s: repaired, %llu pictures\n", path, (unsigned long long)report.video.frames_kept);
    return EXIT_SUCCESS;
}

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: record_c OUTPUT [PICTURES]\n");
        return 2;
    }
    if (argc == 2 && is_unfinished(argv[1])) return repair(argv[1]);
    record(argv[1], argc > 2 ? (uint32_t)strtoul(argv[2], NULL, 10) : PICTURES);
    return EXIT_SUCCESS;
}

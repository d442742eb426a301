/*
 * stitch_push.c - live stitching with frames pushed by the host.
 *
 * Builds a textured scene in memory (waves plus random blobs), slides a
 * 320 x 240 window across it as a camera on a moving stage would see it,
 * pushes each frame into a stitch session and saves the panorama.
 *
 *   ./stitch_push [panorama.ppm]
 *
 * Prints the panorama's size, the frames placed and how far the panorama is
 * from the scene; exits 1 when a call fails or the panorama is wrong.
 */
#define _POSIX_C_SOURCE 200809L
#include <math.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <vantix.h>

enum { SCENE_W = 1600, SCENE_H = 400, FRAME_W = 320, FRAME_H = 240, STEP_X = 24 };

static atomic_uint reports, placed, failed;

/* Runs on the session's worker thread: only count, never stop from here. */
static void on_frame(void *context, const uint8_t *canvas, uint32_t stride, uint32_t cw,
                     uint32_t ch, uint32_t fw, uint32_t fh, uint32_t type, int32_t x, int32_t y,
                     uint32_t mode, uint32_t changed, uint32_t reset, float score) {
  (void)context, (void)canvas, (void)stride, (void)cw, (void)ch, (void)fw, (void)fh;
  (void)type, (void)x, (void)y, (void)changed, (void)reset, (void)score;
  if (mode == 1) atomic_fetch_add(&placed, 1);
  atomic_fetch_add(&reports, 1);
}

static void on_event(void *context, uint32_t code) {
  (void)context;
  if (code == VANTIX_STITCH_EVENT_FAILED || code == VANTIX_STITCH_EVENT_OUT_OF_MEMORY)
    atomic_store(&failed, 1);
}

/* The panorama is allocated through this and freed by us with free(). */
static void *host_alloc(uint64_t bytes) { return bytes > SIZE_MAX ? NULL : malloc((size_t)bytes); }

/* B G R scene: smooth waves plus 500 discs of random colour, size and place. */
static void make_scene(uint8_t *bgr, int w, int h) {
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < 3; ++c)
        bgr[(y * w + x) * 3 + c] = (uint8_t)(120 + 50 * sin(x * 0.043 + c) * cos(y * 0.061) +
                                             30 * sin((x + 2 * y) * 0.017 * (c + 1)));
  uint32_t seed = 2024;
  for (int i = 0; i < 500; ++i) {
    seed = seed * 1664525u + 1013904223u;
    int cx = (int)(seed >> 8) % w, cy = (int)(seed >> 3) % h, r = 3 + (int)(seed >> 27) % 10;
    uint8_t colour[3] = {(uint8_t)(seed >> 24), (uint8_t)(seed >> 16), (uint8_t)(seed >> 4)};
    for (int y = cy - r; y <= cy + r; ++y)
      for (int x = cx - r; x <= cx + r; ++x)
        if (x >= 0 && y >= 0 && x < w && y < h && (x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r)
          for (int c = 0; c < 3; ++c) bgr[(y * w + x) * 3 + c] = colour[c];
  }
}

/* Waits until the session has reported `count` frames (10 s at most). */
static int wait_reports(unsigned count) {
  struct timespec pause = {0, 1000000};
  for (int i = 0; i < 10000; ++i) {
    if (atomic_load(&reports) >= count) return 1;
    nanosleep(&pause, NULL);
  }
  return 0;
}

int main(int argc, char **argv) {
  const char *out = argc > 1 ? argv[1] : "panorama.ppm";
  uint8_t *scene = malloc((size_t)SCENE_W * SCENE_H * 3);
  uint8_t *frame = malloc((size_t)FRAME_W * FRAME_H * 3);
  if (!scene || !frame) return 1;
  make_scene(scene, SCENE_W, SCENE_H);

  vantix_init(host_alloc); /* stitch sessions need the host's allocator */
  VantixStitch *session = vantix_stitch_newV3(VANTIX_FORMAT_BGR8, 0, FRAME_W, FRAME_H, 2, 2, 2,
                                              on_frame, on_event, NULL);
  if (!session) { fprintf(stderr, "vantix_stitch_newV3 failed\n"); return 1; }
  vantix_stitch_start(session);

  /* The window moves right and a little down; one frame at a time, so that
   * every frame is stitched (a faster camera would let the session skip some). */
  unsigned frames = 0;
  int last_x = 0, last_y = 0;
  for (int fx = 0; fx + FRAME_W <= SCENE_W; fx += STEP_X, ++frames) {
    int fy = 20 + frames * 2;
    for (int y = 0; y < FRAME_H; ++y)
      for (int x = 0; x < FRAME_W * 3; ++x)
        frame[y * FRAME_W * 3 + x] = scene[((fy + y) * SCENE_W + fx) * 3 + x];
    VantixResult hr = vantix_stitch_pushback(session, frame, FRAME_W, FRAME_H, 24, 0);
    if (VANTIX_FAILED(hr) || !wait_reports(frames + 1) || atomic_load(&failed)) {
      fprintf(stderr, "frame %u: pushback 0x%08X, or no report from the session\n", frames,
              (unsigned)hr);
      vantix_stitch_delete(session); /* stops the worker first */
      return 1;
    }
    last_x = fx, last_y = fy;
  }

  /* The covered rectangle as a 24-bit image the host owns.  Its rows keep
   * the canvas's memory order, which is that of the pushed frames: we pushed
   * top row first, so the image's first row is the top one (a bitmap viewer,
   * reading it as bottom-up, would show it upside down). */
  VantixImageHeader *pano = vantix_stitch_stop(session, 1, 1);
  vantix_stitch_delete(session);
  if (!pano) { fprintf(stderr, "no panorama\n"); return 1; }
  const int w = pano->biWidth, h = pano->biHeight;
  const size_t stride = vantix_default_stride((uint32_t)w, 24);
  const uint8_t *pixels = (const uint8_t *)pano + pano->biSize;
  FILE *f = fopen(out, "wb");
  if (!f) { perror(out); return 1; }
  fprintf(f, "P6\n%d %d\n255\n", w, h);
  for (int y = 0; y < h; ++y) /* B G R -> R G B */
    for (int x = 0; x < w; ++x) {
      const uint8_t *p = pixels + (size_t)y * stride + (size_t)x * 3;
      uint8_t rgb[3] = {p[2], p[1], p[0]};
      fwrite(rgb, 1, 3, f);
    }
  if (fclose(f) != 0) { perror(out); return 1; }

  /* Compare with the scene where every frame over a column saw it (the
   * panorama's top-left corner is the scene's (0, 20)). */
  double diff = 0;
  long n = 0;
  for (int x = 0; x < w && x < SCENE_W; ++x) {
    int first = x < FRAME_W ? 0 : (x - FRAME_W) / STEP_X + 1, last = x / STEP_X;
    if (last >= (int)frames) last = (int)frames - 1;
    for (int y = 2 * last + 2; y < FRAME_H + 2 * first - 2 && y < h; ++y, n += 3)
      for (int c = 0; c < 3; ++c)
        diff += abs(pixels[(size_t)y * stride + (size_t)x * 3 + c] - scene[((y + 20) * SCENE_W + x) * 3 + c]);
  }
  diff = n ? diff / n : 255;
  free(pano);

  const int want_w = last_x + FRAME_W, want_h = last_y - 20 + FRAME_H;
  printf("panorama %d x %d (path covers %d x %d), %u of %u frames placed, mean difference "
         "to the scene %.2f -> %s\n", w, h, want_w, want_h, atomic_load(&placed), frames, diff, out);
  free(scene), free(frame);
  return abs(w - want_w) <= want_w / 20 && abs(h - want_h) <= want_h / 20 && diff < 8 ? 0 : 1;
}

/*
 * edf_stack.c - extended depth of field from frames pushed by the host.
 *
 * Builds a sharp grey pattern in memory and four "focus slices" of it, each
 * sharp in one vertical band and box-blurred elsewhere, as a microscope
 * focusing through a tilted sample would see it.  Fuses them in an EDF
 * session, reads the fused image back and saves it.
 *
 *   ./edf_stack [fused.pgm]
 *
 * Prints how far the fused image and the best single slice are from the
 * sharp pattern (mean absolute difference); exits 1 when a call fails or the
 * fusion is not closer to the sharp pattern than every slice.
 */
#define _POSIX_C_SOURCE 200809L
#include <math.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <vantix.h>

enum { W = 320, H = 240, SLICES = 4, BLUR = 4 };

static atomic_uint fused, errors;

/* Worker thread: the fused image arrives here; we only count (readdata later). */
static void on_frame(void *context, uint32_t event, const uint8_t *data, uint32_t stride,
                     uint32_t width, uint32_t height, uint32_t type) {
  (void)context, (void)event, (void)data, (void)stride, (void)width, (void)height, (void)type;
  atomic_fetch_add(&fused, 1);
}
static void on_error(void *context, uint32_t code) { (void)context, atomic_store(&errors, code); }

/* Waves plus random discs, 8-bit grey. */
static void make_pattern(uint8_t *img) {
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x)
      img[y * W + x] = (uint8_t)(128 + 60 * sin(x * 0.31) * cos(y * 0.23) + 30 * sin((x - y) * 0.11));
  uint32_t seed = 7;
  for (int i = 0; i < 150; ++i) {
    seed = seed * 1664525u + 1013904223u;
    int cx = (int)(seed >> 8) % W, cy = (int)(seed >> 4) % H, r = 2 + (int)(seed >> 28) % 5;
    for (int y = cy - r; y <= cy + r; ++y)
      for (int x = cx - r; x <= cx + r; ++x)
        if (x >= 0 && y >= 0 && x < W && y < H && (x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r)
          img[y * W + x] = (seed >> 31) ? 250 : 5;
  }
}

/* Box blur of radius r at (x, y), the window clipped to the image. */
static uint8_t box(const uint8_t *img, int x, int y, int r) {
  int sum = 0, n = 0;
  for (int v = y - r; v <= y + r; ++v)
    for (int u = x - r; u <= x + r; ++u)
      if (u >= 0 && v >= 0 && u < W && v < H) sum += img[v * W + u], ++n;
  return (uint8_t)((sum + n / 2) / n);
}

static double distance(const uint8_t *grey, const uint8_t *bgr) { /* mean |grey - B| */
  double sum = 0;
  for (int i = 0; i < W * H; ++i) sum += abs(grey[i] - bgr[i * 3]);
  return sum / (W * H);
}

int main(int argc, char **argv) {
  const char *out = argc > 1 ? argv[1] : "fused.pgm";
  static uint8_t sharp[W * H], slice[W * H * 3], result[W * H * 3];
  make_pattern(sharp);

  VantixEdf *session = vantix_edf_newV2(VANTIX_FORMAT_BGR8, 0, on_frame, on_error, NULL);
  vantix_edf_start(session);
  double best_slice = 1e9;
  for (int k = 0; k < SLICES; ++k) {
    /* Slice k is sharp in band k, blurred more the further a band is from it. */
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) {
        int band = x * SLICES / W, r = abs(band - k) * BLUR;
        uint8_t v = r ? box(sharp, x, y, r) : sharp[y * W + x];
        memset(slice + (y * W + x) * 3, v, 3); /* grey as B = G = R */
      }
    double d = distance(sharp, slice);
    if (d < best_slice) best_slice = d;
    /* 320 * 3 bytes a row is already a multiple of 4: default pitch (0). */
    VantixResult hr = vantix_edf_pushback(session, slice, W, H, 24, 0);
    if (VANTIX_FAILED(hr)) {
      fprintf(stderr, "pushback: 0x%08X\n", (unsigned)hr);
      vantix_edf_delete(session); /* stops the worker first */
      return 1;
    }
    /* Next slice only after this one is fused: the queue drops frames otherwise. */
    struct timespec pause = {0, 1000000};
    for (int i = 0; i < 10000 && atomic_load(&fused) < (unsigned)k + 1 && !atomic_load(&errors); ++i)
      nanosleep(&pause, NULL);
    if (atomic_load(&fused) < (unsigned)k + 1) {
      fprintf(stderr, "slice %d was not fused (error %u)\n", k, atomic_load(&errors));
      vantix_edf_delete(session);
      return 1;
    }
  }
  vantix_edf_stop(session);
  vantix_edf_readdata(session, result, W * 3); /* top row first, 3 bytes a pixel */
  vantix_edf_delete(session);

  FILE *f = fopen(out, "wb");
  if (!f) { perror(out); return 1; }
  fprintf(f, "P5\n%d %d\n255\n", W, H);
  for (int i = 0; i < W * H; ++i) fputc(result[i * 3 + 1], f); /* the green channel */
  if (fclose(f) != 0) { perror(out); return 1; }
  double d = distance(sharp, result);
  printf("fused %d slices of %d x %d: mean difference to the sharp pattern %.2f "
         "(best slice %.2f) -> %s\n", SLICES, W, H, d, best_slice, out);
  return d < best_slice ? 0 : 1;
}

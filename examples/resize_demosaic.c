/*
 * resize_demosaic.c - the stateless image operations.
 *
 * Builds a colour scene in memory, samples it through an RGGB Bayer filter
 * as a raw sensor would, demosaics the mosaic back to B G R and resizes the
 * result to 200 x 150.
 *
 *   ./resize_demosaic [resized.ppm]
 *
 * vantix_demosaic returns VANTIX_E_FAIL even after a conversion that
 * succeeded (it never returns VANTIX_S_OK): a host treats E_FAIL as "ran"
 * and judges the output buffer; every other failure code is a real error.
 * Exits 1 when a call fails or the colours come back wrong.
 */
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <vantix.h>

/* 318 pixels of 3 bytes: rows of 954 bytes, padded to 956 in the output. */
enum { W = 318, H = 240, OUT_W = 200, OUT_H = 150 };

static uint32_t stride24(int width) { return vantix_default_stride((uint32_t)width, 24); }

/* A smooth colour scene: channel c (0 B, 1 G, 2 R) at (x, y). */
static uint8_t scene(int x, int y, int c) {
  return (uint8_t)(128 + 90 * sin(x * 0.02 * (c + 1) + y * 0.013 * (3 - c)));
}

int main(int argc, char **argv) {
  const char *out = argc > 1 ? argv[1] : "resized.ppm";
  uint8_t *raw = malloc((size_t)W * H), *bgr = calloc((size_t)stride24(W) * H, 1);
  uint8_t *small = malloc((size_t)stride24(OUT_W) * OUT_H);
  if (!raw || !bgr || !small) return 1;

  /* RGGB: R on even rows and even columns, B on odd rows and odd columns. */
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      int c = (y % 2 == 0 && x % 2 == 0) ? 2 : (y % 2 == 1 && x % 2 == 1) ? 0 : 1;
      raw[y * W + x] = scene(x, y, c);
    }

  VantixResult hr = vantix_demosaic(raw, bgr, W, H, 8, VANTIX_BAYER_RGGB, VANTIX_DEMOSAIC_BGR,
                                    VANTIX_DEMOSAIC_BILINEAR);
  if (hr != VANTIX_E_FAIL && VANTIX_FAILED(hr)) {
    fprintf(stderr, "vantix_demosaic: 0x%08X\n", (unsigned)hr);
    return 1;
  }
  /* The code says nothing about success: compare with the scene (away from
   * the border, where interpolation has fewer neighbours). */
  double diff = 0;
  int n = 0;
  for (int y = 2; y < H - 2; ++y)
    for (int x = 2; x < W - 2; ++x)
      for (int c = 0; c < 3; ++c, ++n)
        diff += abs(bgr[y * stride24(W) + x * 3 + c] - scene(x, y, c));
  diff /= n;
  printf("demosaic returned 0x%08X; mean difference to the scene %.2f\n", (unsigned)hr, diff);
  if (diff > 4) {
    fprintf(stderr, "the demosaiced image does not match the scene\n");
    return 1;
  }

  /* Both images described by headers; pitch 0 means rows padded to 4 bytes. */
  VantixImageHeader src = {0}, dst = {0};
  src.biSize = dst.biSize = sizeof(VantixImageHeader);
  src.biPlanes = dst.biPlanes = 1;
  src.biBitCount = dst.biBitCount = 24;
  src.biWidth = W, src.biHeight = H;
  dst.biWidth = OUT_W, dst.biHeight = OUT_H;
  hr = vantix_resizeV2(&src, 0, bgr, &dst, 0, small, VANTIX_INTER_AUTO);
  if (hr != VANTIX_S_OK) {
    fprintf(stderr, "vantix_resizeV2: 0x%08X\n", (unsigned)hr);
    return 1;
  }

  FILE *f = fopen(out, "wb");
  if (!f) { perror(out); return 1; }
  fprintf(f, "P6\n%d %d\n255\n", OUT_W, OUT_H);
  for (int y = 0; y < OUT_H; ++y)
    for (int x = 0; x < OUT_W; ++x) {
      const uint8_t *p = small + y * stride24(OUT_W) + x * 3;
      uint8_t rgb[3] = {p[2], p[1], p[0]};
      fwrite(rgb, 1, 3, f);
    }
  if (fclose(f) != 0) { perror(out); return 1; }
  printf("demosaiced %dx%d, resized to %dx%d -> %s\n", W, H, OUT_W, OUT_H, out);
  free(raw), free(bgr), free(small);
  return 0;
}

/* Compiled as strict C99: the public header must be plain C. */
#include <string.h>

#include <vantix.h>

/* Every callback typedef and record is usable from C. */
static void onStitchFrame(void *context, const uint8_t *canvasData, uint32_t canvasStride,
                          uint32_t canvasWidth, uint32_t canvasHeight, uint32_t frameWidth,
                          uint32_t frameHeight, uint32_t frameType, int32_t x, int32_t y,
                          uint32_t mode, uint32_t changed, uint32_t reset, float score) {
  (void)context; (void)canvasData; (void)canvasStride; (void)canvasWidth; (void)canvasHeight;
  (void)frameWidth; (void)frameHeight; (void)frameType; (void)x; (void)y; (void)mode;
  (void)changed; (void)reset; (void)score;
}

int vantix_header_c99_check(void);
int vantix_header_c99_check(void) {
  VantixStitchFrameFn frameFn = onStitchFrame;
  SpotAperture aperture = {1.0, 2.0, 3.0, 4.0};
  SpotResult result;
  FrameInfoV4 info;
  (void)frameFn;
  (void)aperture;
  result.total = 0.0;
  info.width = 0;
  /* The inline helpers compile as C99 and give what they document. */
  return VANTIX_FAILED(VANTIX_E_FAIL) && !VANTIX_FAILED(VANTIX_S_OK) &&
         (int)sizeof(result) + (int)sizeof(info.sdkDefined) > 0 &&
         VANTIX_VERSION == VANTIX_VERSION_MAJOR * 10000 + VANTIX_VERSION_MINOR * 100 +
                               VANTIX_VERSION_PATCH &&
         vantix_default_stride(3, 24) == 12 &&
         strcmp(vantix_result_name(VANTIX_E_INVALIDARG), "E_INVALIDARG") == 0 &&
         strcmp(vantix_stitch_event_name(VANTIX_STITCH_EVENT_TRACKING_LOST), "TRACKING_LOST") == 0 &&
         strcmp(vantix_edf_error_name(VANTIX_EDF_ERROR_OUT_OF_MEMORY), "OUT_OF_MEMORY") == 0;
}

/* The array camera: a camera SDK whose frames are copies of host buffers
 * (see arraycam.h for the contract). */
#define _GNU_SOURCE
#include "arraycam.h"

#include <vantix.h> /* vantix_default_stride (header-only) */

#include <dlfcn.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#ifdef __APPLE__
#include <mach-o/dyld.h>
#else
#include <link.h>
#endif

struct ArraycamCamera {
  pthread_mutex_t lock;
  ArraycamCamera* next; /* registry of open cameras */
  uint8_t* pixels;      /* packed rows, NULL before the first frame */
  uint32_t width;
  uint32_t height;
  uint32_t bytesPerSample; /* 1 or 2 */
  uint32_t channels;       /* 1, 3 or 4 */
  uint32_t rawBits;        /* 8..16 */
  uint32_t frameIndex;
  uint32_t pulls;
};

/* Open cameras.  A handle is used only after it was found here, so a pull
 * with another SDK's camera handle fails instead of reading foreign memory.
 * Lock order: gRegistryLock, then a camera's lock. */
static pthread_mutex_t gRegistryLock = PTHREAD_MUTEX_INITIALIZER;
static ArraycamCamera* gCameras = NULL;

/* Finds `handle` among the open cameras and returns it locked, or NULL. */
static ArraycamCamera* lockCamera(void* handle) {
  ArraycamCamera* found = NULL;
  pthread_mutex_lock(&gRegistryLock);
  for (ArraycamCamera* c = gCameras; c != NULL; c = c->next) {
    if (c == handle) {
      found = c;
      pthread_mutex_lock(&c->lock);
      break;
    }
  }
  pthread_mutex_unlock(&gRegistryLock);
  return found;
}

/* ------------------------------------------------------------------------ */
/* Pixel conversion                                                          */
/* ------------------------------------------------------------------------ */

static int outputLayout(int32_t bits, uint32_t* bytesPerSample, uint32_t* channels) {
  switch (bits) {
    case 8: *bytesPerSample = 1; *channels = 1; return 1;
    case 16: *bytesPerSample = 2; *channels = 1; return 1;
    case 24: *bytesPerSample = 1; *channels = 3; return 1;
    case 32: *bytesPerSample = 1; *channels = 4; return 1;
    case 48: *bytesPerSample = 2; *channels = 3; return 1;
    case 64: *bytesPerSample = 2; *channels = 4; return 1;
    default: return 0;
  }
}

static uint32_t readSample(const uint8_t* p, uint32_t bytes) {
  if (bytes == 1) return *p;
  uint16_t v;
  memcpy(&v, p, 2);
  return v;
}

static void writeSample(uint8_t* p, uint32_t bytes, uint32_t v) {
  if (bytes == 1) {
    *p = (uint8_t)v;
  } else {
    const uint16_t w = (uint16_t)v;
    memcpy(p, &w, 2);
  }
}

/* A sample of the frame at the output's sample size (see the header). */
static uint32_t convertDepth(uint32_t v, uint32_t fromBytes, uint32_t toBytes, uint32_t rawBits) {
  if (fromBytes == toBytes || fromBytes == 1) return v;
  const uint32_t shift = rawBits - 8;
  const uint32_t scaled = shift == 0 ? v : (v + (1u << (shift - 1))) >> shift;
  return scaled > 255 ? 255 : scaled;
}

/* Writes row `y` of the camera's frame in the output layout. */
static void writeRow(const ArraycamCamera* cam, uint32_t y, uint8_t* out, uint32_t outBytes,
                     uint32_t outChannels) {
  const uint32_t inBytes = cam->bytesPerSample;
  const uint32_t inChannels = cam->channels;
  const size_t inPixel = (size_t)inBytes * inChannels;
  const uint8_t* in = cam->pixels + (size_t)y * cam->width * inPixel;
  if (inBytes == outBytes && inChannels == outChannels) {
    memcpy(out, in, (size_t)cam->width * inPixel);
    return;
  }
  const uint32_t fullScale = outBytes == 1 ? 255u : 65535u;
  for (uint32_t x = 0; x < cam->width; ++x, in += inPixel, out += (size_t)outBytes * outChannels) {
    uint32_t s[4] = {0, 0, 0, 0};
    for (uint32_t c = 0; c < inChannels; ++c) s[c] = readSample(in + c * inBytes, inBytes);
    if (outChannels == 1) {
      uint32_t grey = s[0];
      if (inChannels >= 3) grey = (299u * s[2] + 587u * s[1] + 114u * s[0] + 500u) / 1000u;
      writeSample(out, outBytes, convertDepth(grey, inBytes, outBytes, cam->rawBits));
      continue;
    }
    for (uint32_t c = 0; c < 3; ++c) {
      const uint32_t v = inChannels == 1 ? s[0] : s[c];
      writeSample(out + c * outBytes, outBytes, convertDepth(v, inBytes, outBytes, cam->rawBits));
    }
    if (outChannels == 4) {
      const uint32_t alpha =
          inChannels == 4 ? convertDepth(s[3], inBytes, outBytes, cam->rawBits) : fullScale;
      writeSample(out + 3 * outBytes, outBytes, alpha);
    }
  }
}

/* ------------------------------------------------------------------------ */
/* SDK entry points                                                          */
/* ------------------------------------------------------------------------ */

ARRAYCAM_API const char* DllPrefix(void) { return "Arraycam"; }

ARRAYCAM_API int32_t DllPullImageWithRowPitchV2(void* camera, void* buffer, int32_t bits,
                                                int32_t rowPitch, void* frameInfoV2) {
  if (camera == NULL || buffer == NULL) return ARRAYCAM_E_POINTER;
  uint32_t outBytes = 0;
  uint32_t outChannels = 0;
  if (!outputLayout(bits, &outBytes, &outChannels) || rowPitch < 0) return ARRAYCAM_E_INVALIDARG;
  ArraycamCamera* cam = lockCamera(camera);
  if (cam == NULL) return ARRAYCAM_E_HANDLE;
  int32_t result = ARRAYCAM_S_OK;
  if (cam->pixels == NULL) {
    result = ARRAYCAM_E_NOFRAME;
  } else {
    const uint64_t rowBytes = (uint64_t)cam->width * (uint32_t)bits / 8;
    /* Frames are at most 65535 wide, so the 32-bit default never wraps. */
    const uint64_t pitch =
        rowPitch == 0 ? vantix_default_stride(cam->width, (uint32_t)bits) : (uint64_t)rowPitch;
    if (pitch < rowBytes) {
      result = ARRAYCAM_E_INVALIDARG;
    } else {
      for (uint32_t y = 0; y < cam->height; ++y) {
        writeRow(cam, y, (uint8_t*)buffer + (size_t)(y * pitch), outBytes, outChannels);
      }
      ++cam->pulls;
      if (frameInfoV2 != NULL) {
        const uint32_t record[6] = {cam->width,          cam->height,   cam->frameIndex,
                                    cam->bytesPerSample * 8, cam->channels, cam->rawBits};
        memcpy(frameInfoV2, record, sizeof record);
      }
    }
  }
  pthread_mutex_unlock(&cam->lock);
  return result;
}

ARRAYCAM_API int32_t Arraycam_get_RawFormat(void* camera, uint32_t* format, uint32_t* bitDepth) {
  if (camera == NULL) return ARRAYCAM_E_POINTER;
  ArraycamCamera* cam = lockCamera(camera);
  if (cam == NULL) return ARRAYCAM_E_HANDLE;
  if (format != NULL) *format = ARRAYCAM_RAW_FOURCC;
  if (bitDepth != NULL) *bitDepth = cam->pixels != NULL ? cam->rawBits : 0;
  pthread_mutex_unlock(&cam->lock);
  return ARRAYCAM_S_OK;
}

/* ------------------------------------------------------------------------ */
/* Control                                                                   */
/* ------------------------------------------------------------------------ */

ARRAYCAM_API ArraycamCamera* arraycam_open(void) {
  ArraycamCamera* cam = (ArraycamCamera*)calloc(1, sizeof *cam);
  if (cam == NULL) return NULL;
  if (pthread_mutex_init(&cam->lock, NULL) != 0) {
    free(cam);
    return NULL;
  }
  pthread_mutex_lock(&gRegistryLock);
  cam->next = gCameras;
  gCameras = cam;
  pthread_mutex_unlock(&gRegistryLock);
  return cam;
}

ARRAYCAM_API void arraycam_close(ArraycamCamera* camera) {
  if (camera == NULL) return;
  int found = 0;
  pthread_mutex_lock(&gRegistryLock);
  for (ArraycamCamera** link = &gCameras; *link != NULL; link = &(*link)->next) {
    if (*link == camera) {
      *link = camera->next;
      found = 1;
      break;
    }
  }
  if (found) {
    /* Waits for a call that found the camera before it left the registry. */
    pthread_mutex_lock(&camera->lock);
    pthread_mutex_unlock(&camera->lock);
  }
  pthread_mutex_unlock(&gRegistryLock);
  if (!found) return;
  pthread_mutex_destroy(&camera->lock);
  free(camera->pixels);
  free(camera);
}

ARRAYCAM_API int32_t arraycam_set_frame(ArraycamCamera* camera, const void* data, uint32_t width,
                                        uint32_t height, uint32_t bitsPerSample, uint32_t channels,
                                        uint32_t rowPitch, uint32_t rawBits) {
  if (camera == NULL || data == NULL) return ARRAYCAM_E_POINTER;
  if (bitsPerSample != 8 && bitsPerSample != 16) return ARRAYCAM_E_INVALIDARG;
  if (channels != 1 && channels != 3 && channels != 4) return ARRAYCAM_E_INVALIDARG;
  if (width < 1 || height < 1 || width > 65535 || height > 65535) return ARRAYCAM_E_INVALIDARG;
  if (rawBits == 0) rawBits = bitsPerSample;
  if (rawBits < 8 || rawBits > bitsPerSample) return ARRAYCAM_E_INVALIDARG;
  const size_t rowBytes = (size_t)width * channels * (bitsPerSample / 8);
  const size_t pitch = rowPitch == 0 ? rowBytes : rowPitch;
  if (pitch < rowBytes) return ARRAYCAM_E_INVALIDARG;

  /* Copied before taking the lock: a pull of the old frame is not held up. */
  uint8_t* pixels = (uint8_t*)malloc(rowBytes * height);
  if (pixels == NULL) return ARRAYCAM_E_OUTOFMEMORY;
  for (uint32_t y = 0; y < height; ++y) {
    memcpy(pixels + (size_t)y * rowBytes, (const uint8_t*)data + (size_t)y * pitch, rowBytes);
  }
  ArraycamCamera* cam = lockCamera(camera);
  if (cam == NULL) {
    free(pixels);
    return ARRAYCAM_E_HANDLE;
  }
  uint8_t* old = cam->pixels;
  cam->pixels = pixels;
  cam->width = width;
  cam->height = height;
  cam->bytesPerSample = bitsPerSample / 8;
  cam->channels = channels;
  cam->rawBits = rawBits;
  ++cam->frameIndex;
  pthread_mutex_unlock(&cam->lock);
  free(old);
  return ARRAYCAM_S_OK;
}

ARRAYCAM_API uint32_t arraycam_pull_count(ArraycamCamera* camera) {
  ArraycamCamera* cam = lockCamera(camera);
  if (cam == NULL) return 0;
  const uint32_t pulls = cam->pulls;
  pthread_mutex_unlock(&cam->lock);
  return pulls;
}

/* ------------------------------------------------------------------------ */
/* Which SDK libvantix binds                                                 */
/* ------------------------------------------------------------------------ */

typedef struct NameList {
  char** names;
  size_t count;
  size_t capacity;
  int failed;
} NameList;

static void addName(NameList* list, const char* name) {
  if (list->failed) return;
  if (list->count == list->capacity) {
    const size_t capacity = list->capacity == 0 ? 64 : list->capacity * 2;
    char** grown = (char**)realloc(list->names, capacity * sizeof *grown);
    if (grown == NULL) {
      list->failed = 1;
      return;
    }
    list->names = grown;
    list->capacity = capacity;
  }
  char* copy = strdup(name);
  if (copy == NULL) {
    list->failed = 1;
    return;
  }
  list->names[list->count++] = copy;
}

#ifndef __APPLE__
static int collectName(struct dl_phdr_info* info, size_t size, void* data) {
  (void)size;
  /* The main program (empty name) is passed over, as libvantix does. */
  if (info->dlpi_name != NULL && info->dlpi_name[0] != '\0') addName((NameList*)data, info->dlpi_name);
  return 0;
}
#endif

ARRAYCAM_API int32_t arraycam_first_sdk(char* other, size_t size) {
  /* The names are collected first: dlopen must not run inside the walk. */
  NameList list = {NULL, 0, 0, 0};
#ifdef __APPLE__
  const uint32_t images = _dyld_image_count();
  for (uint32_t i = 0; i < images; ++i) {
    const char* name = _dyld_get_image_name(i);
    if (name != NULL) addName(&list, name);
  }
#else
  dl_iterate_phdr(collectName, &list);
#endif
  /* This library is recognised by the object its pull lives in.  The address
   * of the exported pull, taken here, could be another SDK's: an SDK loaded
   * earlier into the global scope interposes the same name.  A static
   * function's address cannot be interposed. */
  void* self = NULL;
  {
    ArraycamCamera* (*anchor)(void*) = lockCamera;
    void* address = NULL;
    memcpy(&address, &anchor, sizeof address);
    Dl_info info;
    if (dladdr(address, &info) != 0) self = info.dli_fbase;
  }
  int32_t first = 0;
  const char* firstName = NULL;
  for (size_t i = 0; i < list.count && firstName == NULL; ++i) {
    void* handle = dlopen(list.names[i], RTLD_NOW | RTLD_NOLOAD);
    if (handle == NULL) continue;
    if (dlsym(handle, "DllPrefix") != NULL) {
      void* pull = dlsym(handle, "DllPullImageWithRowPitchV2");
      Dl_info info;
      if (pull != NULL) {
        firstName = list.names[i];
        first = self != NULL && dladdr(pull, &info) != 0 && info.dli_fbase == self ? 1 : 0;
      }
    }
    dlclose(handle);
  }
  if (list.failed) first = ARRAYCAM_E_OUTOFMEMORY;
  if (first == 0 && other != NULL && size > 0) {
    const char* name = firstName != NULL ? firstName : "";
    strncpy(other, name, size - 1);
    other[size - 1] = '\0';
  }
  for (size_t i = 0; i < list.count; ++i) free(list.names[i]);
  free(list.names);
  return first;
}

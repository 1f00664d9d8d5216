#ifndef BINOCULAR_DPU_H
#define BINOCULAR_DPU_H
/*
 * The stereo unit's library: two processing groups that turn a rectified pair
 * of 8-bit grey images into one 16-bit disparity word per pixel.
 *
 * Images: `width * height` bytes each, rows packed (`width` bytes per row),
 * left camera first. Output: `width * height` words in the same layout:
 *   bit 15      set when the pixel has no valid disparity
 *   bits 14..0  disparity magnitude in 1/64 px (0 .. 511.984375 px)
 *
 * The unit has one image size, set by dpu_init; group 0 and group 1 may
 * compute at the same time from different threads. Calls on the same group
 * are serialised.
 *
 * Every function returns 0 on success and a negative DPU_E* code otherwise.
 */

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define DPU_API __attribute__((visibility("default")))
#else
#define DPU_API
#endif

#define DPU_OK 0
#define DPU_EINVAL (-1) /* null pointer, or no successful dpu_init yet */
#define DPU_ESIZE (-2)  /* dpu_init: width or height not usable by the unit */
#define DPU_EFAULT (-3) /* the unit failed; every output word is marked invalid */

/* Prepares both groups for image pairs of width x height pixels. A later call
 * replaces the size for both groups; a call with an unusable size returns
 * DPU_ESIZE and keeps the previous size. Thread-safe. */
DPU_API int dpu_init(int width, int height);

/* Runs group 0 (group 1) on one pair and returns when `out` is complete.
 * On DPU_EINVAL nothing is written. */
DPU_API int dpu_compute_grp0(unsigned char* left, unsigned char* right, unsigned short* out);
DPU_API int dpu_compute_grp1(unsigned char* left, unsigned char* right, unsigned short* out);

#ifdef __cplusplus
}
#endif

#endif /* BINOCULAR_DPU_H */

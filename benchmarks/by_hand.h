#ifndef BENCHMARKS_BY_HAND_H
#define BENCHMARKS_BY_HAND_H

#include <gst/gst.h>

/*
 * The work of the library, written by hand in C as GStreamer's manual advises. Changes of a playing
 * stream lose no frame, and no output receives an EOS. The code assumes that filters accept the
 * current caps and that nothing fails.
 *
 *   source -> videoconvert -> filters -> tee -> for each output, a queue -> the output
 */

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
  GstElement* bin; /* the pipeline, or a bin that contains the chain from `converter` to `tee` */
  GstElement* source;
  GstElement* converter;
  GList* filters; /* upstream first, with a reference each */
  GstElement* tee;
} ByHand;

/* The part of the chain that a change of one filter stops. */
typedef enum { BY_HAND_FILTER, BY_HAND_CHAIN } ByHandExtent;

/* Creates a stopped pipeline without a source. */
ByHand* by_hand_new(void);
void by_hand_free(ByHand* hand);

/* Adds the first filters to a stopped pipeline. Adopts the list and a reference to each filter. */
void by_hand_set_filters(ByHand* hand, GList* filters);

/* Appends or removes a filter while data flows: blocks, drains, swaps and unblocks. */
void by_hand_add_filter(ByHand* hand, GstElement* filter, ByHandExtent extent);
void by_hand_erase_filter(ByHand* hand, GstElement* filter, ByHandExtent extent);

/* Adds or removes an output, stopped or while data flows. Waits until the pad is idle. */
void by_hand_add_output(ByHand* hand, GstElement* output);
void by_hand_erase_output(ByHand* hand, GstElement* output);

/* Stops the pipeline, replaces the source and starts again. */
void by_hand_set_source(ByHand* hand, GstElement* source);

#ifdef __cplusplus
}
#endif

#endif

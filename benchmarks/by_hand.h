#ifndef BENCHMARKS_BY_HAND_H
#define BENCHMARKS_BY_HAND_H

#include <gst/gst.h>

/*
 * What the library does, written by hand in C as GStreamer's manual advises, and with care: a stream that is changed
 * goes on, loses no frame and shows no end-of-stream. It takes for granted that filters need no format of their own and
 * that nothing fails.
 *
 *   source -> videoconvert -> filters -> tee -> for each output, a queue -> the output
 */

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
  GstElement* bin; /* the pipeline, or a bin in one with what is between `converter` and `tee` */
  GstElement* source;
  GstElement* converter;
  GList* filters; /* upstream first, with a reference each */
  GstElement* tee;
} ByHand;

/* How much of the chain a change of one filter touches. */
typedef enum { BY_HAND_FILTER, BY_HAND_CHAIN } ByHandExtent;

/* A stopped pipeline without a source. */
ByHand* by_hand_new(void);
void by_hand_free(ByHand* hand);

/* Gives a stopped pipeline its first filters; takes over the list, and a reference to each. */
void by_hand_set_filters(ByHand* hand, GList* filters);

/* While data flows: hold it, drain what is to go, swap, release. Append a filter, or take one out. */
void by_hand_add_filter(ByHand* hand, GstElement* filter, ByHandExtent extent);
void by_hand_erase_filter(ByHand* hand, GstElement* filter, ByHandExtent extent);

/* Stopped or while data flows. Waits for the frame that is just passing. */
void by_hand_add_output(ByHand* hand, GstElement* output);
void by_hand_erase_output(ByHand* hand, GstElement* output);

/* Stops everything, puts the source in the place of the one before and starts again. */
void by_hand_set_source(ByHand* hand, GstElement* source);

#ifdef __cplusplus
}
#endif

#endif

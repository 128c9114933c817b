#ifndef BENCHMARKS_BY_HAND_H
#define BENCHMARKS_BY_HAND_H

#include <gst/gst.h>

/*
 * What the library does, written by hand in C as GStreamer's manual advises, and with care: a stream that is changed
 * goes on, loses no frame and shows no end-of-stream. It takes filters for granted that need no format of their own and
 * changes that do not fail.
 *
 *   source -> videoconvert -> filters -> tee -> for each output, a queue -> the output
 */

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
  GstElement* pipeline;
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

/* Appends a filter to a stopped pipeline. */
void by_hand_append(ByHand* hand, GstElement* filter);

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

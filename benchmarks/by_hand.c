#include "benchmarks/by_hand.h"

/* An event that another thread waits for. */
typedef struct {
  GMutex mutex;
  GCond cond;
  gboolean done;
} Event;

static void event_set(Event* event) {
  g_mutex_lock(&event->mutex);
  event->done = TRUE;
  g_cond_signal(&event->cond);
  g_mutex_unlock(&event->mutex);
}

static void event_wait(Event* event) {
  g_mutex_lock(&event->mutex);
  while (!event->done) {
    g_cond_wait(&event->cond, &event->mutex);
  }
  g_mutex_unlock(&event->mutex);
  g_mutex_clear(&event->mutex);
  g_cond_clear(&event->cond);
}

static void check(gboolean succeeded, const char* what) {
  if (!succeeded) {
    g_error("%s failed", what);
  }
}

static GstElement* make(const char* factory, GstElement* pipeline) {
  GstElement* const element = gst_element_factory_make(factory, NULL);
  check(element != NULL && gst_bin_add(GST_BIN(pipeline), element), factory);
  return element;
}

ByHand* by_hand_new(void) {
  ByHand* const hand = g_new0(ByHand, 1);
  hand->bin = gst_pipeline_new(NULL);
  hand->converter = make("videoconvert", hand->bin);
  hand->tee = make("tee", hand->bin);
  g_object_set(hand->tee, "allow-not-linked", TRUE, NULL);
  check(gst_element_link(hand->converter, hand->tee), "linking");
  return hand;
}

void by_hand_free(ByHand* hand) {
  gst_element_set_state(hand->bin, GST_STATE_NULL);
  g_list_free_full(hand->filters, gst_object_unref);
  gst_object_unref(hand->bin);
  g_free(hand);
}

/* Replaces `old` with `fresh` between the neighbours `upstream` and `downstream`, which stay. */
typedef struct {
  GstElement* bin;
  GstElement* upstream;
  GstElement* downstream;
  GList* old;
  GList* fresh;
  gint begun;
  Event finished;
} Swap;

static GstPadProbeReturn on_drained(GstPad* pad, GstPadProbeInfo* info, gpointer drained) {
  (void)pad;
  if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) != GST_EVENT_EOS) {
    return GST_PAD_PROBE_PASS;
  }
  event_set(drained);
  return GST_PAD_PROBE_DROP;
}

/* Drains the elements of `chain`, which may have streaming threads. */
static void drain(GList* chain) {
  Event drained = {0};
  GstPad* const sink = gst_element_get_static_pad(chain->data, "sink");
  GstPad* const src = gst_element_get_static_pad(g_list_last(chain)->data, "src");
  const gulong probe = gst_pad_add_probe(src, GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
                                         on_drained, &drained, NULL);
  check(gst_pad_send_event(sink, gst_event_new_eos()), "draining");
  event_wait(&drained);
  gst_pad_remove_probe(src, probe);
  gst_object_unref(src);
  gst_object_unref(sink);
}

static void swap_chains(Swap* swap) {
  GstElement* previous = swap->upstream;
  for (GList* i = swap->old; i != NULL; i = i->next) {
    gst_element_set_state(i->data, GST_STATE_NULL);
    gst_element_unlink(previous, i->data);
    previous = i->data;
  }
  gst_element_unlink(previous, swap->downstream);
  for (GList* i = swap->old; i != NULL; i = i->next) {
    gst_bin_remove(GST_BIN(swap->bin), i->data);
  }
  previous = swap->upstream;
  for (GList* i = swap->fresh; i != NULL; i = i->next) {
    check(gst_bin_add(GST_BIN(swap->bin), i->data), "adding");
    if (i != swap->fresh) {
      check(gst_element_link(previous, i->data), "linking");
    }
    previous = i->data;
  }
  check(gst_element_link(previous, swap->downstream), "linking");
  if (swap->fresh != NULL) {
    check(gst_element_link(swap->upstream, swap->fresh->data), "linking");
  }
  for (GList* i = g_list_last(swap->fresh); i != NULL; i = i->prev) {
    check(gst_element_sync_state_with_parent(i->data), "starting");
  }
}

static Swap whole_chain(ByHand* hand, GList* fresh) {
  const Swap swap = {
      .bin = hand->bin, .upstream = hand->converter, .downstream = hand->tee, .old = hand->filters, .fresh = fresh};
  return swap;
}

void by_hand_set_filters(ByHand* hand, GList* filters) {
  Swap swap = whole_chain(hand, filters);
  for (GList* i = filters; i != NULL; i = i->next) {
    gst_object_ref_sink(i->data);
  }
  swap_chains(&swap);
  hand->filters = filters;
}

/* Runs on the streaming thread that brought the next item. Swaps here and not in `on_drained`,
 * because the EOS is still passing the pads there. */
static GstPadProbeReturn on_blocked(GstPad* pad, GstPadProbeInfo* info, gpointer data) {
  Swap* const swap = data;
  (void)pad;
  (void)info;
  if (!g_atomic_int_compare_and_exchange(&swap->begun, 0, 1)) {
    return GST_PAD_PROBE_OK;
  }
  if (swap->old != NULL) {
    drain(swap->old);
  }
  swap_chains(swap);
  event_set(&swap->finished);
  return GST_PAD_PROBE_REMOVE;
}

static void run(Swap* swap) {
  GstPad* const blocked = gst_element_get_static_pad(swap->upstream, "src");
  gst_pad_add_probe(blocked, GST_PAD_PROBE_TYPE_BLOCK_DOWNSTREAM, on_blocked, swap, NULL);
  event_wait(&swap->finished);
  gst_object_unref(blocked);
}

void by_hand_add_filter(ByHand* hand, GstElement* filter, ByHandExtent extent) {
  GList* const whole = g_list_append(g_list_copy(hand->filters), gst_object_ref_sink(filter));
  Swap swap = whole_chain(hand, whole);
  if (extent == BY_HAND_FILTER) {
    swap.upstream = hand->filters != NULL ? g_list_last(hand->filters)->data : hand->converter;
    swap.old = NULL;
    swap.fresh = g_list_last(whole);
  }
  run(&swap);
  g_list_free(hand->filters);
  hand->filters = whole;
}

void by_hand_erase_filter(ByHand* hand, GstElement* filter, ByHandExtent extent) {
  GList* const gone = g_list_find(hand->filters, filter);
  GList* const rest = g_list_remove(g_list_copy(hand->filters), filter);
  Swap swap = whole_chain(hand, rest);
  GList only = {filter, NULL, NULL};
  if (extent == BY_HAND_FILTER) {
    swap.upstream = gone->prev != NULL ? gone->prev->data : hand->converter;
    swap.downstream = gone->next != NULL ? gone->next->data : hand->tee;
    swap.old = &only;
    swap.fresh = NULL;
  }
  run(&swap);
  g_list_free(hand->filters);
  hand->filters = rest;
  gst_object_unref(filter);
}

/* A branch of the tee, linked or unlinked while its pad is idle. */
typedef struct {
  GstElement* tee;
  GstPad* sink;
  Event finished;
} Branch;

static GstPadProbeReturn on_join(GstPad* pad, GstPadProbeInfo* info, gpointer data) {
  Branch* const branch = data;
  GstPad* const src = gst_element_request_pad_simple(branch->tee, "src_%u");
  (void)pad;
  (void)info;
  check(gst_pad_link(src, branch->sink) == GST_PAD_LINK_OK, "linking");
  gst_object_unref(src);
  event_set(&branch->finished);
  return GST_PAD_PROBE_REMOVE;
}

static GstPadProbeReturn on_part(GstPad* pad, GstPadProbeInfo* info, gpointer data) {
  Branch* const branch = data;
  (void)info;
  gst_pad_unlink(pad, branch->sink);
  gst_element_release_request_pad(branch->tee, pad);
  event_set(&branch->finished);
  return GST_PAD_PROBE_REMOVE;
}

void by_hand_add_output(ByHand* hand, GstElement* output) {
  GstElement* const queue = make("queue", hand->bin);
  Branch branch = {.tee = hand->tee, .sink = gst_element_get_static_pad(queue, "sink")};
  GstPad* const sink = gst_element_get_static_pad(hand->tee, "sink");
  GstPad* const entrance = gst_pad_get_peer(sink);
  check(gst_bin_add(GST_BIN(hand->bin), output) && gst_element_link(queue, output), "linking");
  /* A sink that waits for its first frame would take the whole pipeline back to PAUSED. */
  g_object_set(output, "async", FALSE, NULL);
  check(gst_element_sync_state_with_parent(output) && gst_element_sync_state_with_parent(queue), "starting");
  gst_pad_add_probe(entrance, GST_PAD_PROBE_TYPE_IDLE, on_join, &branch, NULL);
  event_wait(&branch.finished);
  gst_object_unref(entrance);
  gst_object_unref(sink);
  gst_object_unref(branch.sink);
}

void by_hand_erase_output(ByHand* hand, GstElement* output) {
  GstPad* const sink = gst_element_get_static_pad(output, "sink");
  GstPad* const peer = gst_pad_get_peer(sink);
  GstElement* const queue = gst_pad_get_parent_element(peer);
  Branch branch = {.tee = hand->tee, .sink = gst_element_get_static_pad(queue, "sink")};
  GstPad* const src = gst_pad_get_peer(branch.sink);
  gst_pad_add_probe(src, GST_PAD_PROBE_TYPE_IDLE, on_part, &branch, NULL);
  event_wait(&branch.finished);
  gst_element_set_state(output, GST_STATE_NULL);
  gst_element_set_state(queue, GST_STATE_NULL);
  gst_bin_remove_many(GST_BIN(hand->bin), queue, output, NULL);
  gst_object_unref(src);
  gst_object_unref(branch.sink);
  gst_object_unref(queue);
  gst_object_unref(peer);
  gst_object_unref(sink);
}

void by_hand_set_source(ByHand* hand, GstElement* source) {
  const GstState state = GST_STATE_TARGET(hand->bin);
  gst_element_set_state(hand->bin, GST_STATE_NULL);
  if (hand->source != NULL) {
    gst_bin_remove(GST_BIN(hand->bin), hand->source);
  }
  hand->source = source;
  check(gst_bin_add(GST_BIN(hand->bin), source) && gst_element_link(source, hand->converter), "linking");
  gst_element_set_state(hand->bin, state);
}

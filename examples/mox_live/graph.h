#ifndef MOX_LIVE_GRAPH_H
#define MOX_LIVE_GRAPH_H

#include <string>

#include <gst/gst.h>

namespace mox_live {

/**
 * Writes the elements of the bin, their links, caps and states as a picture. The ending of the
 * file's name selects the kind. A ".dot" file has Graphviz's text. Graphviz's program "dot" draws
 * ".svg" and ".png" files; the call waits for it.
 *
 * @throws std::runtime_error if the ending is another one, Graphviz is not installed, or the file
 * cannot be written
 */
void WriteGraph(GstBin& bin, const std::string& file);

}  // namespace mox_live

#endif

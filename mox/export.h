#ifndef MOX_EXPORT_H
#define MOX_EXPORT_H

/** @file */

/** Marks a declaration as part of its library's exported interface; everything else is built hidden. */
#define MOX_EXPORT __attribute__((visibility("default")))

#endif

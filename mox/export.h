#ifndef MOX_EXPORT_H
#define MOX_EXPORT_H

/** @file */

/** Exports a declaration from its library. Everything else is hidden. */
#define MOX_EXPORT __attribute__((visibility("default")))

#endif

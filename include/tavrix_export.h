/**
 * @file tavrix_export.h
 * The two attributes every public declaration is made with.
 */
#ifndef TAVRIX_EXPORT_H
#define TAVRIX_EXPORT_H

/** Visible in the shared library; everything else is built hidden. */
#define TAVRIX_API __attribute__((visibility("default")))

/** The compiler checks the arguments from position `first` against the printf format at position `format`. */
#define TAVRIX_PRINTF(format_position, first) __attribute__((format(printf, format_position, first)))

#endif

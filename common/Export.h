#ifndef VESK_COMMON_EXPORT_H
#define VESK_COMMON_EXPORT_H

// Everything is compiled with hidden visibility. OV_EXPORT marks the symbols that a library exports.
#define OV_EXPORT __attribute__((visibility("default")))

#endif

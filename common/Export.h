#ifndef VESK_COMMON_EXPORT_H
#define VESK_COMMON_EXPORT_H

// Everything is compiled with hidden visibility; what a library offers is marked with OV_EXPORT.
#define OV_EXPORT __attribute__((visibility("default")))

#endif

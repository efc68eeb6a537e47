// Byte order, attributes and other small things that the other headers share.
#pragma once

#include <byteswap.h>
#include <endian.h>
#include <stdbool.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(array) (sizeof(array) / sizeof((array)[0]))
#endif

#ifndef __packed
#define __packed __attribute__((packed))
#endif
#ifndef __constructor
#define __constructor __attribute__((constructor))
#endif
#ifndef __destructor
#define __destructor __attribute__((destructor))
#endif
#ifndef __hidden
#define __hidden __attribute__((visibility("hidden")))
#endif
#ifndef EXPORT
#define EXPORT __attribute__((visibility("default")))
#endif
#ifndef fallthrough
#define fallthrough __attribute__((__fallthrough__))
#endif

#if __BYTE_ORDER == __LITTLE_ENDIAN
#define const_cpu_to_be16(x) __builtin_bswap16(x)
#define const_cpu_to_be32(x) __builtin_bswap32(x)
#define const_cpu_to_be64(x) __builtin_bswap64(x)
#else
#define const_cpu_to_be16(x) ((uint16_t)(x))
#define const_cpu_to_be32(x) ((uint32_t)(x))
#define const_cpu_to_be64(x) ((uint64_t)(x))
#endif
#define const_be16_to_cpu(x) const_cpu_to_be16(x)
#define const_be32_to_cpu(x) const_cpu_to_be32(x)
#define const_be64_to_cpu(x) const_cpu_to_be64(x)

// The forms for use inside functions evaluate their argument once.
#define evaluate_once_(type, x, convert)                                                           \
    __extension__({                                                                                \
        type once_ = (type)(x);                                                                    \
        convert(once_);                                                                            \
    })
#define cpu_to_be16(x) evaluate_once_(uint16_t, x, const_cpu_to_be16)
#define cpu_to_be32(x) evaluate_once_(uint32_t, x, const_cpu_to_be32)
#define cpu_to_be64(x) evaluate_once_(uint64_t, x, const_cpu_to_be64)
#define be16_to_cpu(x) cpu_to_be16(x)
#define be32_to_cpu(x) cpu_to_be32(x)
#define be64_to_cpu(x) cpu_to_be64(x)

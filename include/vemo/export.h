/*
 * vemo: symbol export and C linkage helpers shared by every public header.
 *
 * Everything the library does not declare with VEMO_API is hidden; every exported
 * symbol has C linkage, so the headers compile as C99 and as C++.
 */
#ifndef VEMO_EXPORT_H
#define VEMO_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define VEMO_API __attribute__((visibility("default")))
#define VEMO_PRINTF(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define VEMO_API
#define VEMO_PRINTF(fmt_index, first_arg)
#endif

#ifdef __cplusplus
#define VEMO_BEGIN_DECLS extern "C" {
#define VEMO_END_DECLS }
#else
#define VEMO_BEGIN_DECLS
#define VEMO_END_DECLS
#endif

#endif /* VEMO_EXPORT_H */

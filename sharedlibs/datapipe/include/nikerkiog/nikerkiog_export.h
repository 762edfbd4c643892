/* Symbol visibility and C linkage for the public headers of libnikerkiog. */
#ifndef NIKERKIOG_EXPORT_H
#define NIKERKIOG_EXPORT_H

#if defined(__GNUC__)
#define NIKERKIOG_API __attribute__((visibility("default")))
#else
#define NIKERKIOG_API
#endif

#ifdef __cplusplus
#define NIKERKIOG_BEGIN_DECLS extern "C" {
#define NIKERKIOG_END_DECLS }
#else
#define NIKERKIOG_BEGIN_DECLS
#define NIKERKIOG_END_DECLS
#endif

#endif

// Symbol visibility for libkelvo.
//
// The library is built with hidden visibility; KELVO_EXPORT marks the declarations that form
// its public interface. The header is plain C so that the C-compatible headers can use it.
#ifndef MOSK_KELVO_EXPORT_H_
#define MOSK_KELVO_EXPORT_H_

#define KELVO_EXPORT __attribute__((visibility("default")))

#endif  // MOSK_KELVO_EXPORT_H_

// Export macro of libvelmora. Everything not marked VELMORA_EXPORT stays hidden
// inside libvelmora.so.
#ifndef VELMORA_EXPORT_H_
#define VELMORA_EXPORT_H_

#if defined(VELMORA_BUILDING_LIBRARY)
#define VELMORA_EXPORT __attribute__((visibility("default")))
#else
#define VELMORA_EXPORT
#endif

#endif  // VELMORA_EXPORT_H_

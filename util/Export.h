// KSMEM_EXPORT marks the classes that libKsMemCppBinding exports; everything else is built
// with hidden visibility and stays internal to the library.
#ifndef KSMEM_UTIL_EXPORT_H_
#define KSMEM_UTIL_EXPORT_H_

#define KSMEM_EXPORT __attribute__((visibility("default")))

#endif  // KSMEM_UTIL_EXPORT_H_

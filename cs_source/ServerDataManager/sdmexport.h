// What a server sees of the data manager across the boundary of its shared
// object.
#ifndef SDM_SDMEXPORT_H
#define SDM_SDMEXPORT_H

// The shared library is built with hidden visibility, so only the classes
// marked SDM_EXPORT enter its dynamic symbol table, with their members, type
// information and virtual tables; the latter let exceptions and dynamic_cast
// work across the boundary. A static build is unaffected by the mark.
#if defined(__GNUC__)
#define SDM_EXPORT __attribute__((visibility("default")))
#else
#define SDM_EXPORT
#endif

#endif  // SDM_SDMEXPORT_H

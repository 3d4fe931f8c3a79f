// Marks what the host offers to modules: the torvasin_* functions of module/torvasin.h, the only
// names a program exports, since the tree is compiled with hidden visibility.

#ifndef TORVASIN_HOST_EXPORT_H
#define TORVASIN_HOST_EXPORT_H

#define TORVASIN_HOST_EXPORT [[gnu::visibility("default")]]

#endif  // TORVASIN_HOST_EXPORT_H

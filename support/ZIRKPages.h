// Fresh large buffers made present before they are written.
#pragma once

#include <opencv2/core/types_c.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

// Makes the whole pages inside [data, data + bytes) present and writable in
// one call, where the kernel can (Linux 5.14 on); elsewhere nothing happens
// and the pages fault in one by one as they are first written. For a buffer
// about to be written whole: a 12 MP image otherwise takes a page fault per
// 4 KB. Small buffers are left alone.
inline void ZIRK_prefault(void* data, size_t bytes) {
#ifdef MADV_POPULATE_WRITE
  constexpr size_t kSmall = 1 << 20;
  if (data == nullptr || bytes < kSmall) return;
  const long pageSize = sysconf(_SC_PAGESIZE);
  if (pageSize <= 0) return;
  const uintptr_t page = static_cast<uintptr_t>(pageSize);
  const uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + page - 1) / page * page;
  const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + bytes) / page * page;
  if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
#else
  (void)data;
  (void)bytes;
#endif
}

// The same for an image's pixels (nothing for a null image).
inline void ZIRK_prefault(IplImage* image) {
  if (image != nullptr && image->imageSize > 0) ZIRK_prefault(image->imageData, static_cast<size_t>(image->imageSize));
}

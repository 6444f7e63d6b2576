// The mask history.
//
// Layout: one block of width*height words, column x at m_bitPlane[x] (words
// x*height .. x*height + height - 1), plus the array of column pointers. Bit k
// of a word is that pixel in slot k. Masks are row-major images, the planes
// are column-major, so both directions walk tiles of kTileRows rows: within a
// tile the mask rows stay in cache while every column's words are read once,
// whole cache lines at a time.
//
// Positions: masks live in the slots m_bottom .. m_top - 1 (ring order); the
// mask shown is the one before m_current, and m_current == m_bottom is the
// state before the first edit (nothing shown).
#include "engine/ZIRKSEManageUndoRedo.h"

#include <android/log.h>
#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "engine/ZIRKSEMarker.h"
#include "support/ZIRKLog.h"
#include "support/ZIRKPages.h"

namespace {

constexpr int32_t kSlots = 32;     // one slot per bit of a word
constexpr int32_t kTileRows = 64;  // rows per tile: 4 cache lines of words per column

int32_t prevSlot(int32_t k) { return (k + kSlots - 1) % kSlots; }
int32_t nextSlot(int32_t k) { return (k + 1) % kSlots; }

// True when mask can be written into the planes: allocated planes and an
// 8-bit one-channel image of exactly the history's size.
bool acceptsMask(const IplImage* mask, const char* function) {
  if (ZIRKSEManageUndoRedo::m_bitPlane == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "%s: the mask history is not allocated",
                        function);
    return false;
  }
  if (mask == nullptr || mask->depth != IPL_DEPTH_8U || mask->nChannels != 1 ||
      mask->width != ZIRKSEManageUndoRedo::width || mask->height != ZIRKSEManageUndoRedo::height) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "%s: mask refused: %dx%d with %d channel(s), history is %dx%d", function,
                        mask ? mask->width : 0, mask ? mask->height : 0, mask ? mask->nChannels : 0,
                        ZIRKSEManageUndoRedo::width, ZIRKSEManageUndoRedo::height);
    return false;
  }
  return true;
}

// True from allocation until the first mask is written: every word is 0.
bool g_blockUnwritten = false;

size_t blockBytes() {
  return static_cast<size_t>(ZIRKSEManageUndoRedo::width) *
         static_cast<size_t>(ZIRKSEManageUndoRedo::height) * sizeof(uint32_t);
}

// Bit k of every word = (mask pixel != 0).
void writeSlot(int32_t k, const IplImage* mask) {
  const uint32_t bit = 1u << k;
  const int32_t w = ZIRKSEManageUndoRedo::width;
  const int32_t h = ZIRKSEManageUndoRedo::height;
  const uint8_t* pixels = reinterpret_cast<const uint8_t*>(mask->imageData);
  const size_t step = static_cast<size_t>(mask->widthStep);
  // Only words that change are stored: a page of the block that no mask
  // has marked is never written, so it stays unmapped (reads see zeros) and
  // costs neither memory nor a page fault. The first write knows every word
  // is 0 and does not read them either.
  const bool unwritten = g_blockUnwritten;
  g_blockUnwritten = false;
  for (int32_t y0 = 0; y0 < h; y0 += kTileRows) {
    const int32_t y1 = y0 + kTileRows < h ? y0 + kTileRows : h;
    for (int32_t x = 0; x < w; ++x) {
      uint32_t* column = ZIRKSEManageUndoRedo::m_bitPlane[x];
      const uint8_t* p = pixels + static_cast<size_t>(y0) * step + x;
      if (unwritten) {
        for (int32_t y = y0; y < y1; ++y, p += step)
          if (*p != 0) column[y] = bit;
        continue;
      }
      for (int32_t y = y0; y < y1; ++y, p += step) {
        const uint32_t word = (column[y] & ~bit) | (*p != 0 ? bit : 0u);
        if (word != column[y]) column[y] = word;
      }
    }
  }
}

// Pixel = 255 where bit k is set, 0 elsewhere.
void readSlot(int32_t k, IplImage* mask) {
  const int32_t w = ZIRKSEManageUndoRedo::width;
  const int32_t h = ZIRKSEManageUndoRedo::height;
  uint8_t* pixels = reinterpret_cast<uint8_t*>(mask->imageData);
  const size_t step = static_cast<size_t>(mask->widthStep);
  for (int32_t y0 = 0; y0 < h; y0 += kTileRows) {
    const int32_t y1 = y0 + kTileRows < h ? y0 + kTileRows : h;
    for (int32_t x = 0; x < w; ++x) {
      const uint32_t* column = ZIRKSEManageUndoRedo::m_bitPlane[x];
      uint8_t* p = pixels + static_cast<size_t>(y0) * step + x;
      for (int32_t y = y0; y < y1; ++y, p += step) {
        *p = static_cast<uint8_t>(0u - ((column[y] >> k) & 1u));  // 0 or 255
      }
    }
  }
}

}  // namespace

uint32_t** ZIRKSEManageUndoRedo::m_bitPlane = nullptr;
int32_t ZIRKSEManageUndoRedo::m_maxSize = kSlots;
int32_t ZIRKSEManageUndoRedo::m_current = 0;
int32_t ZIRKSEManageUndoRedo::m_top = 0;
int32_t ZIRKSEManageUndoRedo::m_bottom = 0;
int32_t ZIRKSEManageUndoRedo::width = 0;
int32_t ZIRKSEManageUndoRedo::height = 0;

void ZIRKSEManageUndoRedo::allocate() {
  // A history left from an earlier source is released rather than leaked.
  deallocate();
  m_maxSize = kSlots;
  const int32_t w = ZIRKSEMarker::m_originalWidth;
  const int32_t h = ZIRKSEMarker::m_originalHeight;
  if (w < 1 || h < 1) return;  // no source: an empty history (getMask reports it)

  // 4 bytes per pixel must fit in memory, and a mask of that size must exist
  // at all (an image holds at most INT32_MAX bytes).
  const uint64_t words = static_cast<uint64_t>(w) * static_cast<uint64_t>(h);
  if (words > SIZE_MAX / sizeof(uint32_t) || words > static_cast<uint64_t>(INT32_MAX)) {
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "ZIRKSEManageUndoRedo::allocate: %dx%d history does not fit in memory", w,
                        h);
    return;
  }
  // Cleared, so a slot that was never written reads as an empty mask. The
  // pages are mapped lazily (zero until written): see writeSlot for the
  // first write.
  const size_t bytes = static_cast<size_t>(words) * sizeof(uint32_t);
  void* mapped = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  uint32_t* block = mapped == MAP_FAILED ? nullptr : static_cast<uint32_t*>(mapped);
  uint32_t** columns =
      static_cast<uint32_t**>(std::calloc(static_cast<size_t>(w), sizeof(uint32_t*)));
  if (block == nullptr || columns == nullptr) {
    if (block != nullptr) munmap(block, bytes);
    std::free(columns);
    __android_log_print(ANDROID_LOG_ERROR, "Error",
                        "ZIRKSEManageUndoRedo::allocate: cannot allocate a %dx%d history", w, h);
    return;
  }
  for (int32_t x = 0; x < w; ++x)
    columns[x] = block + static_cast<size_t>(x) * static_cast<size_t>(h);
  m_bitPlane = columns;
  width = w;
  height = h;
  g_blockUnwritten = true;
}

void ZIRKSEManageUndoRedo::deallocate() {
  if (m_bitPlane != nullptr) {
    if (width > 0) munmap(m_bitPlane[0], blockBytes());  // the block of all columns
    std::free(m_bitPlane);
    m_bitPlane = nullptr;
  }
  m_bottom = m_top = m_current = 0;
  width = height = 0;
}

void ZIRKSEManageUndoRedo::reset() { m_bottom = m_top = m_current = 0; }

IplImage* ZIRKSEManageUndoRedo::getMask(int k) {
  if (k < 0) return nullptr;
  if (width < 1 || height < 1) {
    ZIRK_LogMemoryCrash("getMask", 92);
    return nullptr;
  }
  if (k >= kSlots || m_bitPlane == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "getMask: no slot %d in the mask history", k);
    return nullptr;
  }
  IplImage* mask = cvCreateImage(cvSize(width, height), IPL_DEPTH_8U, 1);
  ZIRK_prefault(mask);
  readSlot(k, mask);
  return mask;
}

void ZIRKSEManageUndoRedo::setMask(int k, IplImage* mask) {
  if (k < 0 || k >= kSlots) {
    __android_log_print(ANDROID_LOG_ERROR, "Error", "setMask: no slot %d in the mask history", k);
    return;
  }
  if (!acceptsMask(mask, "setMask")) return;
  writeSlot(k, mask);
}

void ZIRKSEManageUndoRedo::updateBitPlane(IplImage* mask) {
  if (!acceptsMask(mask, "updateBitPlane")) return;
  writeSlot(m_current, mask);
  m_current = m_top = nextSlot(m_current);
  // A full ring drops the oldest mask.
  if (m_bottom == m_current) m_bottom = nextSlot(m_bottom);
}

IplImage* ZIRKSEManageUndoRedo::prevMask() {
  if (m_current == m_bottom) return nullptr;
  return getMask(prevSlot(m_current));
}

IplImage* ZIRKSEManageUndoRedo::undo() {
  if (m_current == m_bottom) return nullptr;
  m_current = prevSlot(m_current);
  if (m_current == m_bottom) return nullptr;  // back before the first edit
  return getMask(prevSlot(m_current));
}

IplImage* ZIRKSEManageUndoRedo::redo() {
  if (m_current != m_top) m_current = nextSlot(m_current);
  // Only an empty history can leave m_current on m_bottom here: there is no
  // mask to show, and the slot before it may belong to an earlier sequence.
  if (m_current == m_bottom) return nullptr;
  return getMask(prevSlot(m_current));
}

bool ZIRKSEManageUndoRedo::canUndo() {
  if (m_current == m_bottom) return false;
  // With a single mask, stepping back leads only to the empty state.
  return prevSlot(m_current) != m_bottom;
}

bool ZIRKSEManageUndoRedo::canRedo() { return m_current != m_top; }

// The mask history: 32 masks as the 32 bits of one word per pixel.
//
// Slot arithmetic is modulo 32; the newest mask sits in slot prev(m_current).
// At most 31 masks are retained: a 32nd drops the oldest. Costs 4 bytes per
// source pixel; writing or reading a mask touches one bit of each word.
#pragma once

#include <opencv2/core/core_c.h>

#include <cstdint>

#include "support/export.h"

class SEGCORE_EXPORT ZIRKSEManageUndoRedo {
 public:
  static uint32_t** m_bitPlane;  // [width][height] words; bit k = pixel of slot k
  static int32_t m_maxSize;      // 32 slots
  static int32_t m_current;      // slot the next mask goes to
  static int32_t m_top;          // slot after the newest mask (redo limit)
  static int32_t m_bottom;       // history empty when m_current == m_bottom
  static int32_t width;          // source size at allocation
  static int32_t height;

  static void allocate();    // sizes the planes from the source image
  static void deallocate();  // frees the planes; safe to repeat
  static void reset();       // empties the history, keeps the planes
  // New 0/255 image of slot k (null for k < 0); the caller releases it.
  static IplImage* getMask(int k);
  static void setMask(int k, IplImage* mask);
  // Records a new newest mask; discards any redo beyond it.
  static void updateBitPlane(IplImage* mask);
  static IplImage* prevMask();  // newest mask, or null
  static IplImage* undo();      // steps back; null at the state before the first edit
  static IplImage* redo();      // steps forward; the current mask again when at the newest
  static bool canUndo();
  static bool canRedo();
};

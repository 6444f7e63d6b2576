// libSegmentationCore.camera.norvane.so: the caller's functions.
// (The live-wire search and the preview contours: livewire/LiveWire.h.)
//
// One engine per process; these functions are not reentrant and run on the
// caller's thread, except cancelSegmentation(), which may be called from any
// thread while a request runs.
//
// Images: ARGB words 0xAARRGGBB, row-major without padding (pixel (x, y) is
// word y*width + x). Masks: one byte per source pixel, 0 = object,
// 255 = background. Preview: the caller's ARGB image with the object's outline
// painted opaque yellow (0xFFFFFF00).
//
// Order of calls: setSourceImage, initSegmentationEngine, then for each edit
// setMarkerImage + setCurrentMarkerVector + processSegment (or cutOutImage),
// with undo/redo at will; resetSegmentationInterface to start over on the
// same image; deinitSegmentation at the end. doSegmentationBB does the whole
// sequence for a rectangle in one call.
//
// Failures are logged (tag "Error"), never returned; buffers stay the caller's.
// No exception leaves these functions (a failed allocation abandons the
// request with a log line; the source, the engine and the history stay).
#pragma once

#include "support/export.h"

// --- lifecycle and source image ---

// Creates the segmenter for the current source image (argument ignored).
// Lowers a raised cancel.
SEGCORE_EXPORT int initSegmentationEngine(int);
// Releases everything: images, history, segmenter. Safe to repeat.
SEGCORE_EXPORT int deinitSegmentation();
// Starts a new edit sequence on the same image: marks, label image and
// history positions are cleared and a raised cancel is lowered; the source
// and the segmenter stay.
SEGCORE_EXPORT int resetSegmentationInterface();
// Raises the cancel (any thread). A running processSegment checks it between
// its stages and inside its graph cuts, up to the moment the finished mask is
// written into the caller's buffer, and then ends with no mask: the plain
// source is shown, the mask buffer and the history stay as they were.
// The cancel stays raised until resetSegmentationInterface or the engine's
// re-creation (initSegmentationEngine, doSegmentationBB): every processSegment
// in between ends the same way. doSegmentationBB re-creates the engine before
// it segments, so a cancel made during its own set-up is lowered again and
// that request runs. A request that spends its 10 s budget ends like a
// cancelled one; when the graph cut finds the budget spent it raises the
// cancel itself. cutOutImage, undo and redo do not look at the cancel.
SEGCORE_EXPORT void cancelSegmentation();
// With the cancel raised: asks for the engine to be torn down at the end of
// the request in flight, or of the next processSegment, cutOutImage, undo or
// redo (which then returns -1 / leaves no engine). Without a raised cancel it
// does nothing.
SEGCORE_EXPORT void exitSegmentation();
// Takes width*height ARGB words as the source image and sizes the history.
// A source or engine left from an earlier image is released first, also when
// the new image is refused (size below 1, null buffer, too large), so that
// no later call works on the old image.
SEGCORE_EXPORT int setSourceImage(int width, int height, unsigned int* argb);
// Writes the source image back as opaque ARGB (width*height words).
SEGCORE_EXPORT void copySourceImage(unsigned int* argb);
// Releases the marker image and result mask of an unfinished request.
SEGCORE_EXPORT void freeLocalBuffers();

// --- marker input ---

// One label per pixel (0 unknown, 1 background, 2 object, 3/4 estimated),
// saturated to 0..255, and the kind of edit: 0 loop that adds, 1 loop that
// removes, 2 brush that adds, 3 brush that removes. An earlier marker image
// no request has used is released first, also when this one is refused.
SEGCORE_EXPORT int setMarkerImage(int width, int height, int* markers, int kind);
// The drawn path as count ints (x0, y0, x1, y1, ...). Points are clamped into
// the source image and the clamped values written back into `points` (one log
// line tells how many); an odd last int is ignored, a negative count refused.
SEGCORE_EXPORT int setCurrentMarkerVector(int count, int* points);

// --- requests and results ---

// Runs one edit; writes the mask and the preview. Returns 0, or -1 when no
// engine exists afterwards (a requested teardown destroyed it at the end of
// this request, or none had been created). A cancelled or timed-out request
// (see cancelSegmentation) shows the plain source and leaves the mask and
// the history untouched.
SEGCORE_EXPORT int processSegment(int, int, int, unsigned int* argb, unsigned char* mask);
// Takes the marks themselves as the new mask (2 = object, 1 = background,
// other pixels as in the newest mask, or background without one). argb and
// mask may be null when no preview or mask is wanted.
SEGCORE_EXPORT void cutOutImage(int, int, int, unsigned int* argb, unsigned char* mask);
// Whole cut-out from the rectangle (x1, y1)-(x2, y2), corners inclusive:
// tears down any engine, sets the source, creates the engine, segments.
// Inverted corners are swapped and a rectangle partly outside the image is
// clamped into it (one log line either way); one with no pixel in the image
// is refused, leaving the engine and the mask as they were.
// Only the mask is written; argb is read. The engine stays for further edits.
SEGCORE_EXPORT int doSegmentationBB(int width, int height, unsigned int* argb, int x1, int y1,
                                    int x2, int y2, unsigned char* mask);
// Writes the current result mask, inverted (0 = object).
SEGCORE_EXPORT void loadMaskImageInfo(unsigned char* mask);
// Paints the outline of the current result mask into argb.
SEGCORE_EXPORT int loadBlendedImageInfo(unsigned int* argb);
// Steps back or forth in the history and renders the chosen mask; with no
// mask there, shows the plain source.
SEGCORE_EXPORT void undo(unsigned int* argb, unsigned char* mask);
SEGCORE_EXPORT void redo(unsigned int* argb, unsigned char* mask);
// False with one mask or none: there is no earlier mask to show.
SEGCORE_EXPORT bool canUndo();
SEGCORE_EXPORT bool canRedo();

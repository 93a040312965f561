// Places in the stream buffer where a test ends or stops a process.
#pragma once

namespace sb {

enum class Point {
  kSegmentCreated,   // private file exists, empty
  kSegmentFilled,    // complete, not yet named
  kSegmentRetired,   // the old one says that it is going, and still has its name
  kSegmentReplaced,  // named, the waiters of the old one not yet woken
  kLeaseTaken,       // locked, the predecessor's pins not yet cleared
  kFrameEmptied,     // seq 0, holders not yet looked at
  kFrameReserved,    // ours, being filled
  kFrameNumbered,    // visible, `latest` not yet moved
  kLatestMoved,      // waiters not yet woken
  kPinSet,           // bit set, number not yet compared
  kPinned,           // frame in use
  kPinCleared,       // the writer not yet woken
  kCellWritten,      // slot value stored, control word not yet swapped
  kSlotSet,          // swapped
  kMarkRead,         // tester has the value, mark not yet swapped away
  kMarkCleared,      // swapped
  kReaped,           // one dead lease's bits cleared, its lock still ours
  kCount
};

#ifdef VS_STREAM_BUFFER_POINTS
extern void (*onPoint)(Point);
inline void reached(Point point) {
  if (onPoint != nullptr) onPoint(point);
}
#else
inline void reached(Point) {}
#endif

}  // namespace sb

package stor.device.bench;

import stor.device.skiplist.FileLocation;
import stor.device.skiplist.Visitor;

/**
 * The one way in which all maps are called, so that its cost is the same for all. The last thing
 * that a visitor is given belongs to the safe layer; other maps give null.
 */
interface RangeMap extends AutoCloseable {
    /** Stores a range; afterwards its bytes lie there, and all others where they were. */
    void insert(long offset, int length, FileLocation at);

    /** Visits the ranges that share a byte with a range, in order. */
    void find(long offset, int length, Visitor visitor);

    /** Visits the last of the ranges that begin at or before a position, if there is one. */
    default void floor(long position, Visitor visitor) {
        throw new UnsupportedOperationException("floor");
    }

    /** Visits the last range of all, if there is one. */
    default void last(Visitor visitor) {
        throw new UnsupportedOperationException("last");
    }

    /** Visits all ranges in order. */
    void forEach(Visitor visitor);

    @Override
    default void close() {
    }
}

package stor.device.bench;

import stor.device.skiplist.FileLocation;
import stor.device.skiplist.Visitor;

/**
 * What is done to a map: an insert, or a query that reads all it finds.
 *
 * @param kind what is done
 * @param offset the first byte, or the position of a floor
 * @param length the length in bytes, of an insert or a find
 * @param at where an insert puts the first byte, or null for a query
 */
record Operation(Kind kind, long offset, int length, FileLocation at) {
    /** The kinds of operations. */
    enum Kind { INSERT, FIND, FLOOR, LAST }

    static Operation insert(long offset, int length, FileLocation at) {
        return new Operation(Kind.INSERT, offset, length, at);
    }

    static Operation find(long offset, int length) {
        return new Operation(Kind.FIND, offset, length, null);
    }

    static Operation floor(long position) {
        return new Operation(Kind.FLOOR, position, 0, null);
    }

    static Operation last() {
        return new Operation(Kind.LAST, 0, 0, null);
    }

    /** Tells whether this leaves the map as it is. */
    public boolean isQuery() {
        return kind != Kind.INSERT;
    }

    void applyTo(RangeMap map, Visitor visitor) {
        switch (kind) {
            case INSERT -> map.insert(offset, length, at);
            case FIND -> map.find(offset, length, visitor);
            case FLOOR -> map.floor(offset, visitor);
            default -> map.last(visitor);
        }
    }
}

package stor.device.bench;

import stor.device.skiplist.FileLocation;
import stor.device.skiplist.Visitor;

/**
 * What is done to a map: an insert, or a query that reads all it finds.
 *
 * @param offset the first byte
 * @param length the length in bytes
 * @param at where an insert puts the first byte, or null for a query
 */
record Operation(long offset, int length, FileLocation at) {
    static Operation query(long offset, int length) {
        return new Operation(offset, length, null);
    }

    /** Tells whether this is a query. */
    public boolean isQuery() {
        return at == null;
    }

    void applyTo(RangeMap map, Visitor visitor) {
        if (at == null) {
            map.find(offset, length, visitor);
        } else {
            map.insert(offset, length, at);
        }
    }
}

package stor.device.skiplist;

/**
 * A stored range as it was when it was read. Holds nothing of the map.
 *
 * @param offset the first byte
 * @param len the length in bytes, at least 1
 * @param memoryType whether the range was inserted with a buffer, even if that has been given back
 * @param location where the first byte lies
 */
public record MappedRange(long offset, int len, boolean memoryType, FileLocation location) {
    /**
     * Gives the half-open end.
     *
     * @return the first byte after the range
     */
    public long end() {
        return offset + len;
    }

    /**
     * Tells whether a byte is in the range.
     *
     * @param position any position
     * @return whether {@code position} is at least the offset and less than the end
     */
    public boolean contains(long position) {
        return position >= offset && position < end();
    }

    /**
     * Tells whether this is a hole: bytes that are stored nowhere, as {@link OffHeapRangeMap#remove}
     * and inserts of {@link FileLocation#EMPTY} leave them.
     *
     * @return whether the range is of file type and its location
     *     {@linkplain FileLocation#isUnversioned unversioned}
     */
    public boolean isHole() {
        return !memoryType && location.isUnversioned();
    }
}

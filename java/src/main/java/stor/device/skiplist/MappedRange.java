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

    /** Reads a range from a map whose lock the caller holds. */
    static MappedRange read(long node) {
        FileLocation location = new FileLocation(
                Byte.toUnsignedInt(JniSkipListNative.getNodeFileNumber(node)),
                JniSkipListNative.getNodeFileOffset(node),
                JniSkipListNative.getNodeFileMajorVer(node),
                JniSkipListNative.getNodeFileMinorVer(node));
        return new MappedRange(
                JniSkipListNative.getNodeIndexOffset(node),
                JniSkipListNative.getNodeIndexLen(node),
                JniSkipListNative.getNodeFileType(node), location);
    }
}

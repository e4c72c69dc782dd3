package stor.device.replay;

/**
 * A stored range.
 *
 * @param start the first byte
 * @param length the length in bytes
 * @param location where the first byte lies
 * @param writeId the write whose bytes the range's buffer holds, or {@link #NO_BUFFER}
 */
public record Range(long start, int length, Location location, long writeId) {
    /** The {@code writeId} of a range without buffer. */
    public static final long NO_BUFFER = 0;

    /**
     * Gives the half-open end.
     *
     * @return the first byte after the range
     */
    public long end() {
        return start + length;
    }

    /**
     * Tells whether the range holds a buffer.
     *
     * @return whether it does
     */
    public boolean isBuffered() {
        return writeId != NO_BUFFER;
    }

    /**
     * Cuts a piece out of the range.
     *
     * @param from the first byte of the piece
     * @param to the first byte after it
     * @param sectorSize the logical bytes of a sector
     * @return the piece, with its own location and the same write's bytes
     */
    public Range slice(long from, long to, int sectorSize) {
        return new Range(from, (int) (to - from), location.plus(from - start, sectorSize), writeId);
    }

    /**
     * Drops the buffer.
     *
     * @return the same range without buffer
     */
    public Range withoutBuffer() {
        return new Range(start, length, location, NO_BUFFER);
    }
}

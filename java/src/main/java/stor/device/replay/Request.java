package stor.device.replay;

/**
 * One request of a trace.
 *
 * @param kind what it does
 * @param offset the first byte
 * @param length how many bytes, at least 1
 * @param micros when it came, in microseconds by the trace's own clock, from any moment on
 */
public record Request(Kind kind, long offset, long length, long micros) {
    /** What a request does to its range. */
    public enum Kind {
        /** Asks for the bytes. */
        READ,
        /** Stores new bytes. */
        WRITE,
        /** Says that nobody needs the bytes any more. */
        DISCARD
    }

    long end() {
        return offset + length;
    }

    @Override
    public String toString() {
        return kind + " of " + length + " bytes at " + offset;
    }
}

package stor.device.skiplist;

import io.netty.buffer.ByteBuf;

/** Finds out why a buffer would not be sliced, which the native side does not pass on. */
final class StoredSlices {
    private static final String SLICE_FAILED = "Buff::Buff JNI CallObjectMethod(";

    private StoredSlices() {
    }

    /**
     * Gives a native failure its cause, if that is a buffer's: what the caller's buffer threw, or
     * else what one of the stored buffers throws when it is asked again.
     *
     * @param failure what the native side has thrown
     * @param ofCaller what the caller's buffer threw, or null
     * @param first begins the nodes whose buffers may have been asked, of a map whose guard the
     *     caller is inside, and which has been left unchanged
     * @param end before it they begin
     */
    static RuntimeException explain(
            RuntimeException failure, Throwable ofCaller, long first, long end) {
        String message = failure.getMessage();
        if (message != null && message.startsWith(SLICE_FAILED) && failure.getCause() == null) {
            Throwable cause = ofCaller == null ? firstFailure(first, end) : ofCaller;
            if (cause != null) {
                failure.initCause(cause);
            }
        }
        return failure;
    }

    private static Throwable firstFailure(long first, long end) {
        for (long node = first; NodeReader.offset(node) < end; node = NodeReader.next(node)) {
            ByteBuf buffer = NodeReader.buffer(node);
            if (buffer != null) {
                try {
                    buffer.retainedSlice(0, NodeReader.len(node)).release();
                } catch (Throwable e) {
                    return e;
                }
            }
        }
        return null;
    }
}

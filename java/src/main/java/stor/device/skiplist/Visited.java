package stor.device.skiplist;

import io.netty.buffer.ByteBuf;
import io.netty.util.IllegalReferenceCountException;
import java.util.ConcurrentModificationException;

/**
 * Says more about the range that is being visited. Belongs to the visiting thread and ends with the
 * visit of the last range; its methods throw {@link ConcurrentModificationException} anywhere else.
 */
public final class Visited {
    private final Thread visitor = Thread.currentThread();
    // The range being visited, or 0. Nobody but the visitor gets to use it.
    private long node;

    Visited() {
    }

    /** Goes on to a node of the map that is being walked, or ends with 0. */
    void moveTo(long next) {
        node = next;
    }

    /**
     * Tells whether the range was inserted with a buffer, even if that has been given back.
     *
     * @return whether it was
     */
    public boolean isMemoryType() {
        return NodeReader.isMemoryType(node());
    }

    /**
     * Borrows the buffer with the bytes of the range. The caller neither releases nor changes it,
     * and does not use it after the visit. Makes one small object, with indices of its own, if
     * there is a buffer.
     *
     * @return a buffer with as many readable bytes as the range is long, or null
     * @throws IllegalReferenceCountException if somebody has released the map's own slice
     */
    public ByteBuf buffer() {
        ByteBuf held = held();
        return held == null ? null : held.slice();
    }

    /**
     * Takes a reference to the bytes of the range, which outlives the visit and the map.
     *
     * @return a buffer with as many readable bytes as the range is long, for the caller to release,
     *     or null
     * @throws IllegalReferenceCountException if somebody has released the map's own slice
     */
    public ByteBuf retainedBuffer() {
        ByteBuf held = held();
        return held == null ? null : held.retainedSlice();
    }

    private ByteBuf held() {
        long current = node();
        ByteBuf held = NodeReader.buffer(current);
        if (held != null) {
            NodeReader.requireHeld(current, held);
        }
        return held;
    }

    private long node() {
        if (Thread.currentThread() != visitor || node == 0) {
            throw new ConcurrentModificationException(
                    "visited range: used outside its visit (expected: only in visit())");
        }
        return node;
    }
}

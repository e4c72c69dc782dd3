package stor.device.skiplist;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.UnpooledByteBufAllocator;
import io.netty.buffer.UnpooledHeapByteBuf;

/**
 * What the native side is given in place of a caller's buffer: it asks for a retained slice and
 * keeps that, which here is one of exactly the bytes wanted. Remembers what the caller's buffer
 * throws, which the native side does not pass on. One for each map, used inside its guard.
 */
final class HandedBuffer extends UnpooledHeapByteBuf {
    private ByteBuf source;
    private int length;
    private Throwable thrown;

    HandedBuffer() {
        super(UnpooledByteBufAllocator.DEFAULT, 0, 0);
    }

    /** Stands for the first {@code len} readable bytes of a buffer from now on. */
    void of(ByteBuf buffer, int len) {
        source = buffer;
        length = len;
        thrown = null;
    }

    /** Gives what the buffer threw, or null. */
    Throwable thrown() {
        return thrown;
    }

    /** Lets go of the buffer. */
    void forget() {
        source = null;
        thrown = null;
    }

    @Override
    public ByteBuf retainedSlice() {
        try {
            return source.readableBytes() == length
                    ? source.retainedSlice()
                    : source.retainedSlice(source.readerIndex(), length);
        } catch (Throwable e) {
            thrown = e;
            throw e;
        }
    }
}

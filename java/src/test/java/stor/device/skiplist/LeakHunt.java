package stor.device.skiplist;

import io.netty.buffer.PooledByteBufAllocator;
import java.lang.ref.ReferenceQueue;
import java.lang.ref.WeakReference;
import org.junit.jupiter.api.extension.AfterAllCallback;
import org.junit.jupiter.api.extension.ExtensionContext;

/** Makes Netty report the buffers that a test class has lost, while the class is still known. */
public final class LeakHunt implements AfterAllCallback {
    private static final int ROUNDS = 3;
    private static final int QUEUE_MILLIS = 1000;

    @Override
    public void afterAll(ExtensionContext context) throws InterruptedException {
        System.err.println("leak hunt after " + context.getDisplayName());
        hunt();
    }

    /** Makes Netty report the buffers that have been lost so far. */
    static void hunt() throws InterruptedException {
        for (int i = 0; i < ROUNDS; i++) {
            ReferenceQueue<Object> queue = new ReferenceQueue<>();
            WeakReference<Object> canary = new WeakReference<>(new Object(), queue);
            System.gc();
            // Lost buffers are found by the same collection, and reported by the next allocation.
            queue.remove(QUEUE_MILLIS);
            PooledByteBufAllocator.DEFAULT.buffer().release();
            if (!canary.refersTo(null)) {
                throw new IllegalStateException("the collector did not run");
            }
        }
    }
}

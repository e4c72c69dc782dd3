package stor.device.replay;

import io.netty.buffer.ByteBufAllocator;
import io.netty.buffer.PoolArenaMetric;
import io.netty.buffer.PooledByteBufAllocator;
import io.netty.buffer.PooledByteBufAllocatorMetric;
import java.util.function.ToLongFunction;
import java.util.stream.Stream;

/**
 * A pool of Netty buffers that can say how many of them are in use: those whose reference count has
 * not come back to 0.
 */
public final class CountedBuffers {
    private static final int ARENAS = 1;

    // Without thread caches: the pool's counts would take a cached buffer for one in use.
    private final PooledByteBufAllocator pool = new PooledByteBufAllocator(true, ARENAS, ARENAS,
            PooledByteBufAllocator.defaultPageSize(), PooledByteBufAllocator.defaultMaxOrder(),
            0, 0, 0, false);

    /** Makes an empty pool. */
    public CountedBuffers() {
    }

    /**
     * Gives the allocator.
     *
     * @return the allocator, for any thread
     */
    public ByteBufAllocator allocator() {
        return pool;
    }

    /**
     * Counts the buffers that have been allocated and not freed.
     *
     * @return their number
     */
    public long inUse() {
        return sum(PoolArenaMetric::numActiveAllocations);
    }

    /**
     * Counts the buffers that were ever allocated.
     *
     * @return their number
     */
    public long allocated() {
        return sum(PoolArenaMetric::numAllocations);
    }

    private long sum(ToLongFunction<PoolArenaMetric> count) {
        PooledByteBufAllocatorMetric metric = pool.metric();
        return Stream.concat(metric.directArenas().stream(), metric.heapArenas().stream())
                .mapToLong(count).sum();
    }
}

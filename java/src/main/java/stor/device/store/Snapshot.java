package stor.device.store;

import io.netty.buffer.ByteBuf;
import java.io.IOException;
import java.util.List;
import java.util.concurrent.atomic.AtomicBoolean;
import stor.device.skiplist.OffHeapRangeMap;

/**
 * The device as it was when {@link BlockStore#snapshot} was called. Holds copies of the maps, a
 * reference to every {@link ByteBuf} that was buffered then, and every segment file. To be closed
 * before the store. Safe for use by several threads.
 */
public final class Snapshot implements AutoCloseable {
    private final BlockStore store;
    private final List<OffHeapRangeMap> memory;
    private final OffHeapRangeMap fileMap;
    private final SegmentFiles files;
    private final List<Segment> pinned;
    private final AtomicBoolean closed = new AtomicBoolean();

    /** Takes copies of the maps, those of the memory with the newest first. */
    Snapshot(BlockStore store, List<OffHeapRangeMap> memory, OffHeapRangeMap fileMap,
            SegmentFiles files) {
        this.store = store;
        this.memory = memory;
        this.fileMap = fileMap;
        this.files = files;
        this.pinned = files.pinAll();
    }

    /**
     * Reads bytes as they were.
     *
     * @param offset the first byte; a multiple of the sector size
     * @param length how many bytes; a positive multiple of the sector size
     * @return the bytes, zeros where nothing was written
     * @throws IOException if a segment file cannot be read, or a sector in it is damaged
     */
    public byte[] read(long offset, int length) throws IOException {
        try (ReadPlan plan = store.newPlan(offset, length)) {
            return plan.find(memory, fileMap).execute();
        }
    }

    /** Lets buffers and segments go; does nothing the second time. */
    @Override
    public void close() {
        if (closed.compareAndSet(false, true)) {
            // First the maps, which waits for a read that is looking for segments to pin.
            try {
                store.forget(this);
            } finally {
                pinned.forEach(files::unpin);
            }
        }
    }

    List<OffHeapRangeMap> memory() {
        return memory;
    }

    OffHeapRangeMap fileMap() {
        return fileMap;
    }
}

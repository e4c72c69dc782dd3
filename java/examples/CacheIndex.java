import io.netty.buffer.ByteBuf;
import io.netty.buffer.PooledByteBufAllocator;
import java.util.ArrayDeque;
import java.util.Optional;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.MappedRange;
import stor.device.skiplist.OffHeapRangeMap;

/**
 * The index of a block cache: which blocks of a device are in the cache, and where. Blocks come
 * with their bytes, which stay in memory until they have been written to the cache's file. The
 * oldest make room for the newest; what they overwrite is garbage in the file.
 */
public final class CacheIndex implements AutoCloseable {
    private static final int BLOCK = 4096;
    private static final int SECTOR = 512;

    private final OffHeapRangeMap map = OffHeapRangeMap.create(12, SECTOR);
    private final ArrayDeque<Long> oldestFirst = new ArrayDeque<>();
    private final int capacity;
    private int end;
    private long garbage;

    private CacheIndex(int capacity) {
        this.capacity = capacity;
    }

    /** Takes a block and its bytes, and evicts the oldest if there are too many. */
    private void put(long offset, ByteBuf bytes) {
        FileLocation place = new FileLocation(0, end, 1, 0);
        end += BLOCK + BLOCK / SECTOR * 8;
        map.replace(offset, BLOCK, place, bytes, lost -> garbage += lost.len());
        oldestFirst.add(offset);
        while (oldestFirst.size() > capacity) {
            garbage += map.remove(oldestFirst.remove(), BLOCK);
        }
    }

    /** Says where a byte is found. */
    private String find(long position) {
        // Both questions are answered at the same moment.
        return map.atomically(() -> {
            Optional<MappedRange> hit = map.get(position);
            if (hit.isEmpty()) {
                return "miss";
            }
            ByteBuf bytes = map.retainedBuffer(position);
            if (bytes == null) {
                return "file at " + hit.get().location().offset();
            }
            try {
                return "memory: " + bytes.readByte();
            } finally {
                bytes.release();
            }
        });
    }

    @Override
    public void close() {
        map.close();
    }

    /** Prints what a cache of two blocks finds. */
    public static void main(String[] args) {
        try (CacheIndex cache = new CacheIndex(2)) {
            for (int i = 0; i < 3; i++) {
                ByteBuf bytes = PooledByteBufAllocator.DEFAULT.buffer().writeZero(BLOCK);
                bytes.setByte(100, i);
                cache.put((long) i * BLOCK, bytes);
                bytes.release();
            }
            System.out.println(cache.find(100));
            System.out.println(cache.find(BLOCK + 100));
            cache.map.releaseBuffers(0, 3 * BLOCK);       // all of them have been written
            System.out.println(cache.find(2 * BLOCK + 1024));
            System.out.println(cache.garbage + " bytes of garbage, " + cache.map.statistics());
        }
    }
}

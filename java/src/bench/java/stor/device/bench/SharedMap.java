package stor.device.bench;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.PooledByteBufAllocator;
import io.netty.util.ResourceLeakDetector;
import java.util.ArrayList;
import java.util.List;
import java.util.Optional;
import java.util.Random;
import java.util.concurrent.Callable;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicLongArray;
import java.util.concurrent.atomic.LongAdder;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.MappedRange;
import stor.device.skiplist.OffHeapRangeMap;
import stor.device.skiplist.RangeBatch;

/**
 * Has threads read one map while others write it, and checks every answer: a tool that shows that
 * queries may run side by side.
 *
 * <p>The device is a row of pages. Each has one writer, who counts the page's versions: up before a
 * write, and once more behind it. What a version stores follows from page and version: a location in
 * a file, one with a buffer, nothing, or the old content redirected. So a reader who looks at both
 * counts, the one behind before his query and the one up front after it, knows all that he may have
 * seen. Neighbours never continue each other.
 */
public final class SharedMap {
    private static final int PAGE = 4096;
    private static final int PAGES = 3000;
    private static final int WRITERS = 2;
    private static final int READERS = 2;
    private static final int RUN = 16;
    private static final int CHECK_EVERY = 20_000;

    private final OffHeapRangeMap map = OffHeapRangeMap.create(12, 512);
    private final AtomicLongArray begun = new AtomicLongArray(PAGES);
    private final AtomicLongArray done = new AtomicLongArray(PAGES);
    private final LongAdder reads = new LongAdder();
    private final LongAdder writes = new LongAdder();
    private final long seed;
    private volatile boolean ended;

    private SharedMap(long seed) {
        this.seed = seed;
    }

    /** What a version of a page stores. */
    private enum Content {
        IN_FILE,
        IN_BUFFER,
        NOTHING,
        REDIRECTED;

        static Content of(int page, long version) {
            int choice = (int) ((page * 31L + version * 0x9E3779B9L) >>> 4 & 7);
            return version == 0 || choice == 7 ? NOTHING
                    : choice < 4 ? IN_FILE : choice < 6 ? IN_BUFFER : REDIRECTED;
        }
    }

    /**
     * Runs for some seconds; ends the JVM with 0 if all answers were right and nothing is left
     * behind, otherwise with 1.
     *
     * @param args the number of seconds, and a seed if not one of the clock's
     */
    public static void main(String[] args) throws Exception {
        long seed = args.length > 1 ? Long.parseLong(args[1]) : System.nanoTime();
        ResourceLeakDetector.setLevel(ResourceLeakDetector.Level.PARANOID);
        System.out.println(new SharedMap(seed).run(Long.parseLong(args[0])));
    }

    private String run(long seconds) throws Exception {
        ExecutorService threads = Executors.newFixedThreadPool(WRITERS + READERS);
        List<Future<?>> work = new ArrayList<>();
        for (int i = 0; i < WRITERS; i++) {
            int writer = i;
            work.add(threads.submit(untilEnded(() -> write(writer, new Random(seed + writer)))));
        }
        for (int i = 0; i < READERS; i++) {
            Random random = new Random(~seed - i);
            work.add(threads.submit(untilEnded(() -> read(random))));
        }
        threads.shutdown();
        long end = System.nanoTime() + seconds * 1_000_000_000L;
        while (System.nanoTime() < end && !ended) {
            Thread.sleep(100);
        }
        ended = true;
        for (Future<?> each : work) {
            each.get();
        }
        map.checkInvariants();
        map.close();
        return "PASS: " + reads + " reads, " + writes + " writes, seed " + seed;
    }

    /** What a thread does again and again. */
    private interface Body {
        void run();
    }

    private Callable<Void> untilEnded(Body body) {
        return () -> {
            try {
                while (!ended) {
                    body.run();
                }
            } catch (RuntimeException | Error e) {
                throw new AssertionError("seed " + seed, e);
            } finally {
                ended = true;
            }
            return null;
        };
    }

    // --- Writers ---------------------------------------------------------------------------------

    private void write(int writer, Random random) {
        // Some pages far more often than others.
        int bound = random.nextBoolean() ? PAGES / WRITERS : 32;
        int page = random.nextInt(bound) * WRITERS + writer;
        long version = begun.incrementAndGet(page);
        store(page, version);
        done.incrementAndGet(page);
        writes.increment();
    }

    private void store(int page, long version) {
        long offset = (long) page * PAGE;
        FileLocation at = location(page, version);
        switch (Content.of(page, version)) {
            case IN_FILE -> map.insert(offset, PAGE, at);
            case IN_BUFFER -> insertBuffer(offset, page, version, at);
            case NOTHING -> map.remove(offset, PAGE);
            case REDIRECTED -> {
                map.insert(offset, PAGE, location(page, -version));
                require(map.compareAndSet(offset, PAGE, location(page, -version), at),
                        "page " + page + " was not redirected");
            }
        }
        if (version % 64 == 0) {
            map.releaseBuffers(0, (long) PAGES * PAGE);
        }
    }

    private void insertBuffer(long offset, int page, long version, FileLocation at) {
        ByteBuf buffer = PooledByteBufAllocator.DEFAULT.buffer(PAGE);
        try {
            buffer.setLong(0, page).setLong(PAGE - Long.BYTES, version).writerIndex(PAGE);
            map.insert(offset, PAGE, at, buffer);
        } finally {
            buffer.release();
        }
    }

    private static FileLocation location(int page, long version) {
        return new FileLocation(page & 0xFF, page, page, (int) version);
    }

    // --- Readers ---------------------------------------------------------------------------------

    private void read(Random random) {
        int page = random.nextInt(PAGES);
        switch (random.nextInt(8)) {
            case 0 -> checkFloor(page);
            case 1 -> checkCeiling(page);
            case 2 -> checkVisit(page);
            case 3 -> checkBatch(page);
            case 4 -> checkBuffer(page);
            default -> checkGet(page, random.nextInt(PAGE));
        }
        reads.increment();
        if (random.nextInt(CHECK_EVERY) == 0) {
            map.checkInvariants();
            copy();
        }
    }

    private void checkGet(int page, int at) {
        long from = done.get(page);
        Optional<MappedRange> found = map.get((long) page * PAGE + at);
        long to = begun.get(page);
        requireSeen(page, from, to, found.isPresent(),
                found.map(range -> range.location().minorVer()).orElse(0));
        found.ifPresent(range -> require(
                range.location().equals(location(page, range.location().minorVer())
                        .plus(at, 512)) && range.len() == PAGE - at, range));
    }

    private void checkFloor(int page) {
        long[] from = versions(done, page);
        Optional<MappedRange> found = map.floor((long) page * PAGE + 7);
        checkNearest(page, -1, from, found);
    }

    private void checkCeiling(int page) {
        long[] from = versions(done, page);
        Optional<MappedRange> found = map.ceiling((long) page * PAGE);
        checkNearest(page, 1, from, found);
    }

    /** Checks the nearest stored page in a direction, as far as the versions were noted. */
    private void checkNearest(
            int page, int step, long[] from, Optional<MappedRange> found) {
        int at = found.map(range -> (int) (range.offset() / PAGE)).orElse(-1);
        for (int i = 0; i <= RUN; i++) {
            int next = page + i * step;
            if (next < 0 || next >= PAGES) {
                return;
            }
            boolean isIt = next == at;
            requireSeen(next, from[RUN + i * step], begun.get(next), isIt,
                    isIt ? found.get().location().minorVer() : 0);
            if (isIt) {
                return;
            }
        }
    }

    private static long[] versions(AtomicLongArray counts, int page) {
        long[] versions = new long[2 * RUN + 1];
        for (int i = Math.max(0, page - RUN); i <= Math.min(PAGES - 1, page + RUN); i++) {
            versions[RUN + i - page] = counts.get(i);
        }
        return versions;
    }

    /** Also queries the visited map, as a visitor may. */
    private void checkVisit(int page) {
        long[] from = versions(done, page);
        map.forEach((long) page * PAGE, (long) RUN * PAGE, (offset, len, number, fileOffset,
                major, minor, range) -> {
            if (major != -1 || minor != -1) {
                require(offset % PAGE == 0 && len == PAGE && major == offset / PAGE, offset);
                requireSeen(major, from[RUN + major - page], begun.get(major), true, minor);
                require(map.get(offset).orElseThrow().location().minorVer() == minor, offset);
            }
        });
    }

    private void checkBatch(int page) {
        long[] from = versions(done, page);
        RangeBatch batch = new RangeBatch(RUN);
        map.read((long) page * PAGE, (long) RUN * PAGE, batch);
        for (int i = 0; i < batch.size(); i++) {
            require(i == 0 || batch.offset(i) >= batch.offset(i - 1) + batch.len(i - 1), i);
            int major = batch.majorVer(i);
            if (major != -1 || batch.minorVer(i) != -1) {
                requireSeen(major, from[RUN + major - page], begun.get(major), true,
                        batch.minorVer(i));
            }
        }
    }

    private void checkBuffer(int page) {
        long from = done.get(page);
        ByteBuf bytes = map.retainedBuffer((long) page * PAGE);
        if (bytes != null) {
            try {
                int last = bytes.readerIndex() + PAGE - Long.BYTES;
                require(bytes.readableBytes() == PAGE
                        && bytes.getLong(bytes.readerIndex()) == page, bytes);
                requireSeen(page, from, begun.get(page), true, (int) bytes.getLong(last));
            } finally {
                bytes.release();
            }
        }
    }

    private void copy() {
        try (OffHeapRangeMap copy = OffHeapRangeMap.create(12, 512)) {
            map.copyTo(copy);
            copy.checkInvariants();
        }
    }

    /** Requires that one of the versions of a page stores what was seen. */
    private static void requireSeen(int page, long from, long to, boolean stored, int version) {
        boolean seen = false;
        if (stored) {
            // The step before a redirection shows the negative version.
            long shown = Math.abs((long) version);
            seen = shown >= from && shown <= to && Content.of(page, shown) != Content.NOTHING
                    && (version >= 0 || Content.of(page, shown) == Content.REDIRECTED);
        } else {
            for (long each = from; each <= to && !seen; each++) {
                seen = Content.of(page, each) == Content.NOTHING;
            }
        }
        require(seen, "page " + page + ": " + (stored ? "version " + version : "nothing")
                + " (expected: one of the versions " + from + " to " + to + ")");
    }

    private static void require(boolean holds, Object found) {
        if (!holds) {
            throw new AssertionError(found);
        }
    }
}

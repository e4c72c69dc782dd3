package stor.device.bench;

import java.io.IOException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Random;
import java.util.function.BiFunction;
import java.util.stream.Stream;
import stor.device.skiplist.FileLocation;
import stor.device.replay.Request;
import stor.device.replay.TraceReader;

/** The operations that are timed, made from fixed seeds: the same in every run and for all maps. */
final class Workloads {
    static final int SECTOR_SIZE = 512;

    private static final int EXTRA_BYTES_PER_SECTOR = 8;
    private static final int SECTORS_PER_PAGE = 8;
    private static final int PAGE_BYTES = SECTORS_PER_PAGE * SECTOR_SIZE;
    private static final int MOST_SECTORS = 2 * SECTORS_PER_PAGE;
    // So that large maps are not asked for longer than it takes to fill them.
    private static final int MOST_OPERATIONS = 1_000_000;
    private static final int OPERATIONS_PER_WRITE = 20;

    private Workloads() {
    }

    /** Tells how far apart in the file two bytes lie that are so far apart on the device. */
    static long fileDistance(long distance, int sectorSize) {
        return distance + distance / sectorSize * EXTRA_BYTES_PER_SECTOR;
    }

    /** Makes ranges of a page each, side by side, in random order, of which no two can be fused. */
    static Stream<Operation> fill(int count) {
        return fill(count, PAGE_BYTES);
    }

    /** As above, with a page left free behind each. */
    static Stream<Operation> fillApart(int count) {
        return fill(count, 2 * PAGE_BYTES);
    }

    /** Makes writes of 1 to 16 sectors at random sectors of a device of so many pages. */
    static List<Operation> overwrite(int pages) {
        SegmentLog log = new SegmentLog(SECTOR_SIZE);
        return atRandom(2, pages,
                (offset, length) -> Operation.insert(offset, length, log.appendApart(length)));
    }

    /** Makes as many queries, at places drawn in the same way, others for each thread. */
    static List<Operation> find(int pages, int thread) {
        return atRandom(3 + thread, pages, Operation::find);
    }

    /** Asks for the range at or before random bytes of a device that was filled apart. */
    static List<Operation> floor(int pages) {
        return new Random(5).longs(operations(pages), 0, 2L * PAGE_BYTES * pages)
                .mapToObj(Operation::floor).toList();
    }

    /** Asks for the last range again and again. */
    static List<Operation> last(int pages) {
        return Collections.nCopies(operations(pages), Operation.last());
    }

    /**
     * Makes queries, and in one of twenty cases a write of a page that lies there. Each of two
     * threads has pages of its own to write to, so that in the end all maps hold the same.
     */
    static List<Operation> mixed(int pages, int thread) {
        SegmentLog log = new SegmentLog(SECTOR_SIZE);
        Random random = new Random(6 + thread);
        return find(pages, thread).stream().map(query -> {
            if (random.nextInt(OPERATIONS_PER_WRITE) != 0) {
                return query;
            }
            long page = 2L * random.nextInt(pages / 2) + thread;
            return Operation.insert(page * PAGE_BYTES, PAGE_BYTES, log.appendApart(PAGE_BYTES));
        }).toList();
    }

    /**
     * Makes what a log-structured store does for a trace: a read is a query, a write goes to the
     * next place of the log, a discard stores the empty location.
     */
    static List<Operation> trace(Path path, int sectorSize) throws IOException {
        SegmentLog log = new SegmentLog(sectorSize);
        List<Operation> operations = new ArrayList<>();
        try (TraceReader trace = new TraceReader(path)) {
            for (Request next = trace.next(); next != null; next = trace.next()) {
                operations.add(switch (next.kind()) {
                    case READ -> Operation.find(next.offset(), (int) next.length());
                    case WRITE -> write(next.offset(), (int) next.length(), log);
                    case DISCARD -> Operation.insert(
                            next.offset(), (int) next.length(), FileLocation.EMPTY);
                });
            }
        }
        return operations;
    }

    private static Operation write(long offset, int length, SegmentLog log) {
        return Operation.insert(offset, length, log.append(length));
    }

    private static Stream<Operation> fill(int count, int distance) {
        SegmentLog log = new SegmentLog(SECTOR_SIZE);
        return Arrays.stream(shuffled(count)).mapToObj(page -> Operation.insert(
                (long) page * distance, PAGE_BYTES, log.appendApart(PAGE_BYTES)));
    }

    private static List<Operation> atRandom(
            int seed, int pages, BiFunction<Long, Integer, Operation> make) {
        Random random = new Random(seed);
        int starts = pages * SECTORS_PER_PAGE - MOST_SECTORS;
        return Stream.generate(() -> make.apply((long) random.nextInt(starts) * SECTOR_SIZE,
                (1 + random.nextInt(MOST_SECTORS)) * SECTOR_SIZE))
                .limit(operations(pages)).toList();
    }

    private static int operations(int pages) {
        return Math.min(pages, MOST_OPERATIONS);
    }

    private static int[] shuffled(int count) {
        Random random = new Random(1);
        int[] numbers = new int[count];
        for (int i = 0; i < count; i++) {
            int place = random.nextInt(i + 1);
            numbers[i] = numbers[place];
            numbers[place] = i;
        }
        return numbers;
    }
}

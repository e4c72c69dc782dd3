package stor.device.skiplist;

import java.util.List;
import java.util.Random;
import stor.device.replay.CheckedMap;
import stor.device.replay.CountedBuffers;
import stor.device.replay.Location;
import stor.device.replay.Range;
import stor.device.replay.Timings;

/**
 * Does random operations on two maps, and compares everything after each.
 *
 * <p>The maps stay small, so that most operations cut, fuse or replace something. File locations
 * and expectations mostly follow from what is stored nearby: chance alone would hardly ever hit
 * one.
 */
final class RandomOperations implements AutoCloseable {
    private static final int POSITIONS = 160;
    private static final int DESTROY = 999;
    private static final int LONGEST = 6;
    private static final int UNITS_PER_SECTOR = 4;
    // Around 0, beyond 32 bits, and reaching into negative offsets.
    private static final long[] BASES = {0, 1L << 40, -(1L << 12)};

    private final Random random;
    private final int height;
    private final int sectorSize;
    private final int unit;
    private final long base;
    private final CountedBuffers buffers = new CountedBuffers();
    private final Timings timings = new Timings();
    private final CheckedMap[] maps;
    private long writeId;
    private String description = "none";

    RandomOperations(long seed, int height, int sectorSize) {
        random = new Random(seed);
        this.height = height;
        this.sectorSize = sectorSize;
        unit = Math.max(1, sectorSize / UNITS_PER_SECTOR);
        base = BASES[random.nextInt(BASES.length)];
        maps = new CheckedMap[] {newMap(), newMap()};
    }

    /** Says what the last operation was. */
    String description() {
        return description;
    }

    /** Does one operation and compares what it may have changed. */
    void step() {
        int target = random.nextInt(maps.length);
        CheckedMap map = maps[target];
        long start = position();
        int length = length();
        // Copies to and fro multiply ranges of length 0, which no insert replaces.
        boolean crowded = map.model().size() > POSITIONS;
        int choice = crowded ? DESTROY : random.nextInt(DESTROY + 1);
        if (choice < 400) {
            Location at = location(map, start, length);
            description = "insert " + start + " " + length + " " + at;
            map.insert(start, length, at);
        } else if (choice < 600) {
            insertWithBuff(map, start, length);
        } else if (choice < 780) {
            compareAndSet(map, start, length);
        } else if (choice < 950) {
            compareAndRelease(map, start, length);
        } else if (choice < 953) {
            description = "release";
            map.release();
        } else if (choice < DESTROY) {
            description = "copy to the other map";
            map.copyTo(maps[1 - target]);
            maps[1 - target].checkAll();
        } else {
            description = "destroy";
            map.close();
            map = newMap();
            maps[target] = map;
        }
        map.checkAll();
        map.check(position(), length());
    }

    /** Counts the buffers that some map still holds. */
    long buffersInUse() {
        return buffers.inUse();
    }

    @Override
    public void close() {
        for (CheckedMap map : maps) {
            map.close();
        }
    }

    private void insertWithBuff(CheckedMap map, long start, int length) {
        Location at = location(map, start, length);
        // A buffered piece at the empty location would fuse and leave its buffer too short. Pieces
        // get there when a location with these versions is cut, so none of them gets a buffer.
        boolean withBuffer = at.major() != -1 && random.nextInt(5) > 0;
        long id = withBuffer ? ++writeId : Range.NO_BUFFER;
        description = "insertWithBuff " + start + " " + length + " " + at + " " + id;
        map.insertWithBuff(start, length, at, id);
    }

    private void compareAndSet(CheckedMap map, long start, int length) {
        Location expected = expectation(map, start, length);
        Location replacement = location(map, start, length);
        description = "compareAndSet " + start + " " + length + " " + expected + " " + replacement;
        map.compareAndSet(start, length, expected, replacement);
    }

    private void compareAndRelease(CheckedMap map, long start, int length) {
        long from = start;
        int bytes = length;
        List<Range> stored = map.model().find(start, length);
        if (!stored.isEmpty() && random.nextInt(4) > 0) {
            // Reaches around whole ranges, since those that stick out never match.
            Range first = stored.get(random.nextInt(stored.size()));
            Range last = stored.get(stored.size() - 1);
            from = first.start();
            bytes = (int) ((random.nextBoolean() ? first : last).end() - from);
        }
        Location expected = expectation(map, from, bytes);
        description = "compareAndRelease " + from + " " + bytes + " " + expected;
        map.compareAndRelease(from, bytes, expected);
    }

    /** Gives a place for the range: empty, unrelated, or in line with what is stored around it. */
    private Location location(CheckedMap map, long start, int length) {
        int choice = random.nextInt(10);
        if (choice == 0) {
            return new Location(false, number(), -1, -1, -1);
        }
        List<Range> around = map.model().find(start - 1, length + 2);
        if (choice < 6 && !around.isEmpty()) {
            Range other = around.get(random.nextInt(around.size()));
            return other.location().plus(start - other.start(), sectorSize);
        }
        return new Location(false, number(), random.nextInt(), random.nextInt(2), 1);
    }

    /** Gives what some range stored here makes the location of {@code start}, or a near miss. */
    private Location expectation(CheckedMap map, long start, int length) {
        List<Range> stored = map.model().find(start, length);
        if (stored.isEmpty()) {
            return new Location(false, number(), random.nextInt(), 0, 1);
        }
        Range range = stored.get(random.nextInt(stored.size()));
        long distance = Location.fileDistance(range.start() - start, sectorSize);
        int miss = random.nextInt(8) == 0 ? 1 : 0;
        Location at = range.location();
        return new Location(
                false, at.number(), (int) (at.offset() - distance + miss), at.major(), at.minor());
    }

    private byte number() {
        return (byte) (random.nextBoolean() ? 3 : 200);
    }

    private long position() {
        return base + (long) unit * random.nextInt(POSITIONS) + jitter();
    }

    private int length() {
        return random.nextInt(50) == 0 ? 0 : unit * (1 + random.nextInt(LONGEST)) + jitter();
    }

    private int jitter() {
        return random.nextInt(4) == 0 ? random.nextInt(unit) : 0;
    }

    private CheckedMap newMap() {
        return new CheckedMap(height, sectorSize, buffers, timings);
    }
}

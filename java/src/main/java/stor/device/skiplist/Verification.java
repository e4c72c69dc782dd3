package stor.device.skiplist;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.io.IOException;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.Random;
import java.util.function.Supplier;
import stor.device.skiplist.RangeModel.Held;

/**
 * Random operations on two maps, each followed by a comparison of all that they answer and hold
 * with a {@link RangeModel}, the reference counts of all buffers included. The same profile and
 * seed make the same operations.
 *
 * <p>The maps stay small, so that most operations cut, join or replace something. File locations
 * and expectations mostly follow from what is stored nearby: chance alone would hardly ever hit
 * one.
 */
final class Verification implements AutoCloseable {
    private static final int LONGEST = 6;
    private static final int[] HEIGHTS = {1, 4, 12};

    private final Profile profile;
    private final Random random;
    private final int height;
    private final int sectorSize;
    private final int unit;
    private final boolean oddPlaces;
    private final Pair[] pairs;
    private final Map<Long, ByteBuf> buffers = new HashMap<>();
    private long writes;
    private Supplier<String> description = () -> "none";
    private Pair[] touched;

    /** What the operations are like. */
    enum Profile {
        /** The native methods, ranges of no length and of no buffer among them. */
        NATIVE(160, 0.25, 20, 0, 1L << 40, -(1L << 12)),
        /** Ranges of whole sectors, on a device so large that the guard has to look. */
        LAYER(96, 0, 10, -48, 1L << 40),
        /** Mostly buffers, which are cut, copied and given back. */
        BUFFERS(96, 0.1, 60, 0),
        /** Ranges that begin and end anywhere in their sectors. */
        CUTS(96, 0.5, 20, -48, 1L << 40),
        /** Ranges that would be too long if they were joined, at places where they might be. */
        LONG(24, 0.1, 5, 0, -12L << 28),
        /** Both ends of all positions at once, and the middle. */
        ENDS(32, 0.2, 10, Long.MIN_VALUE + 1, -16, Long.MAX_VALUE - 34);

        private final int positions;
        private final double jitter;
        private final int bufferedPercent;
        private final long[] bases;

        Profile(int positions, double jitter, int bufferedPercent, long... bases) {
            this.positions = positions;
            this.jitter = jitter;
            this.bufferedPercent = bufferedPercent;
            this.bases = bases;
        }

        private int[] sectorSizes() {
            return switch (this) {
                case LONG -> new int[] {512, 1 << 29, 1 << 30};
                case ENDS -> new int[] {1, 8};
                default -> new int[] {1, 8, 64, 512};
            };
        }

        private int unit(int sectorSize) {
            return switch (this) {
                case LONG -> 1 << 28;
                case ENDS -> 1;
                case LAYER -> sectorSize;
                default -> Math.max(1, sectorSize / 4);
            };
        }
    }

    /** A map and what it should hold. */
    record Pair(VerifiedMap map, RangeModel model) {
    }

    Verification(Profile profile, long seed) {
        this.profile = profile;
        random = new Random(seed);
        height = HEIGHTS[random.nextInt(HEIGHTS.length)];
        int[] sectorSizes = profile.sectorSizes();
        sectorSize = sectorSizes[random.nextInt(sectorSizes.length)];
        unit = profile.unit(sectorSize);
        oddPlaces = random.nextBoolean();
        pairs = new Pair[] {newPair(), newPair()};
        touched = pairs;
    }

    /** Says what the last operation was. */
    String description() {
        return description.get();
    }

    /** Gives a map that operations are done to and its model. */
    Pair pair() {
        return pairs[0];
    }

    /** Does one operation. */
    void step() {
        int target = random.nextInt(pairs.length);
        Pair pair = pairs[target];
        Pair other = pairs[1 - target];
        // What one map was told must not show in the other; a look from time to time tells that.
        touched = random.nextInt(16) == 0 ? pairs : new Pair[] {pair};
        MappedRange range = range(pair.model());
        int choice = random.nextInt(1000);
        // Copies to and fro multiply ranges of length 0, which no insert replaces.
        if (choice < 10 || pair.model().all().size() > 160) {
            description = () -> "close";
            pair.map().close();
            pairs[target] = newPair();
            touched = pairs;
        } else if (choice < 20) {
            description = () -> "release";
            requireEqual("released", pair.model().release(), pair.map().release());
        } else if (choice < 40) {
            touched = pairs;
            both("copyTo", range, () -> {
                pair.map().copyTo(other.map());
                return null;
            }, () -> {
                pair.model().copyTo(other.model());
                return null;
            });
        } else if (choice < 200) {
            MappedRange expected = around(pair.model(), range);
            both("compareAndRelease", expected, () -> pair.map().compareAndRelease(expected),
                    () -> pair.model().compareAndRelease(expected));
        } else if (choice < 380) {
            MappedRange expected = at(range, expectation(pair.model(), range));
            FileLocation to = range.location();
            both("compareAndSet to " + to + " from", expected,
                    () -> pair.map().compareAndSet(expected, to),
                    () -> pair.model().compareAndSet(expected, to));
        } else if (choice < 520 && pair.map() instanceof VerifiedMap.Layer layer) {
            changeLayer(layer.map(), pair.model(), range);
        } else {
            insert(pair, range);
        }
    }

    /**
     * Compares everything that the last operation may have changed.
     *
     * @throws AssertionError if there is a difference
     */
    void compare() {
        Map<Long, Integer> references = new HashMap<>();
        for (Pair pair : touched) {
            compareAll(pair);
            query(pair);
        }
        for (Pair pair : pairs) {
            for (Held held : pair.model().all()) {
                if (held.isBuffered()) {
                    references.merge(held.write(), 1, Integer::sum);
                }
            }
        }
        compareReferences(references);
        buffers.keySet().retainAll(references.keySet());
    }

    /** Closes both maps; all buffers have to come back. */
    @Override
    public void close() {
        for (Pair pair : pairs) {
            pair.map().close();
        }
        compareReferences(Map.of());
    }

    /** What only the layer does. */
    private void changeLayer(OffHeapRangeMap map, RangeModel model, MappedRange range) {
        long offset = range.offset();
        int len = range.len();
        FileLocation to = range.location();
        int choice = random.nextInt(32);
        if (choice == 0) {
            both("clear", range, () -> {
                map.clear();
                return null;
            }, () -> {
                model.clear();
                return null;
            });
        } else if (choice < 12 && profile != Profile.LONG && profile != Profile.ENDS) {
            // Where holes may be too long to be said, they are made in parts.
            both("remove", range, () -> map.remove(offset, len), () -> model.remove(range));
        } else if (choice < 18) {
            both("releaseBuffers", range, () -> map.releaseBuffers(offset, len),
                    () -> model.releaseInside(range));
        } else if (choice < 24) {
            FileLocation expected = expectation(model, range);
            both("redirect from " + expected + " to", range,
                    () -> map.redirect(offset, len, expected, to), () -> {
                        long before = model.insertedBytes();
                        model.compareAndSet(at(range, expected), to);
                        return model.insertedBytes() - before;
                    });
        } else {
            both("replace", range, () -> {
                List<MappedRange> pieces = new ArrayList<>();
                map.atomically(() -> map.replace(offset, len, to, pieces::add));
                return pieces;
            }, () -> {
                List<MappedRange> pieces = model.stored(range);
                model.insert(range, RangeModel.NO_BUFFER);
                return pieces;
            });
        }
    }

    private void insert(Pair pair, MappedRange range) {
        // A buffered piece of a range with these versions could get to the empty location, where
        // ranges are joined and no buffer says the bytes of both.
        boolean memoryType = random.nextInt(100) < profile.bufferedPercent
                && range.location().majorVer() != -1;
        int len = memoryType && profile == Profile.LONG ? 1 + range.len() % 3 : range.len();
        MappedRange added = new MappedRange(range.offset(), len, memoryType, range.location());
        insert(pair, added, memoryType && (profile != Profile.NATIVE || random.nextInt(5) > 0));
    }

    /** Inserts into a map and its model, with the bytes of a new write if there is a buffer. */
    void insert(Pair pair, MappedRange added, boolean buffered) {
        long write = buffered ? ++writes : RangeModel.NO_BUFFER;
        ByteBuf buffer = buffered ? Unpooled.directBuffer(added.len())
                .writeBytes(bytes(added.offset(), added.len(), write)) : null;
        both("insert", added, () -> {
            pair.map().insert(added, buffer);
            return null;
        }, () -> {
            pair.model().insert(added, write);
            return null;
        });
        if (buffered) {
            buffer.release();
            buffers.put(write, buffer);
        }
    }

    /** Does the same to a map and its model; both give the same, or refuse alike. */
    private void both(String operation, MappedRange range, Supplier<?> map, Supplier<?> model) {
        description = () -> operation + " " + range;
        requireEqual("result", outcome(model), outcome(map));
    }

    private static Object outcome(Supplier<?> operation) {
        try {
            return Optional.ofNullable(operation.get());
        } catch (IllegalArgumentException tooLong) {
            return IllegalArgumentException.class;
        }
    }

    private void compareReferences(Map<Long, Integer> references) {
        buffers.forEach((write, buffer) -> {
            int expected = references.getOrDefault(write, 0);
            if (buffer.refCnt() != expected) {
                throw difference("references to the buffer of write " + write, expected,
                        buffer.refCnt());
            }
        });
    }

    private void compareAll(Pair pair) {
        List<Held> expected = pair.model().all();
        compareRun("range", expected, reader -> pair.map().forEach(reader), true);
        RangeModel model = pair.model();
        requireEqual("size, covered bytes, inserted bytes, inserts",
                List.of((long) expected.size(), model.coveredBytes(), model.insertedBytes(),
                        (long) model.insertCount()), pair.map().counters());
    }

    private void query(Pair pair) {
        MappedRange query = range(pair.model());
        compareRun("query of " + query.offset() + ", " + query.len() + ": range",
                pair.model().find(query.offset(), query.len()),
                reader -> pair.map().forEach(query.offset(), query.len(), reader), false);
        if (pair.map() instanceof VerifiedMap.Layer layer) {
            queryLayer(layer.map(), pair.model(), query);
        }
    }

    private void queryLayer(OffHeapRangeMap map, RangeModel model, MappedRange query) {
        List<Held> all = model.all().stream().filter(held -> !held.range().isHole()).toList();
        long position = random.nextInt(8) > 0 ? query.offset() : random.nextLong();
        requireEqual("first", found(all, 0), map.first());
        requireEqual("last", found(all, all.size() - 1), map.last());
        requireEqual("isEmpty", all.isEmpty(), map.isEmpty());
        int after = 0;
        while (after < all.size() && all.get(after).offset() < position) {
            after++;
        }
        int there = after < all.size() && all.get(after).offset() == position ? 1 : 0;
        requireEqual("lower than " + position, found(all, after - 1), map.lower(position));
        requireEqual("floor of " + position, found(all, after + there - 1), map.floor(position));
        requireEqual("ceiling of " + position, found(all, after), map.ceiling(position));
        requireEqual("higher than " + position, found(all, after + there), map.higher(position));
        requireEqual("get " + position, all.stream().map(Held::range)
                .filter(range -> range.contains(position)).findFirst()
                .map(range -> new MappedRange(position, (int) (range.end() - position),
                        range.memoryType(),
                        range.location().plus(position - range.offset(), sectorSize))),
                map.get(position));
        requireEqual("ranges", model.find(query.offset(), query.len()).stream().map(Held::range)
                .filter(range -> !range.isHole()).toList(),
                map.ranges(query.offset(), query.len()));
        long bytes = all.stream().mapToLong(Held::len).sum();
        List<Held> buffered = all.stream().filter(Held::isBuffered).toList();
        requireEqual("statistics", new MapStatistics(all.size(), model.all().size() - all.size(),
                bytes, buffered.size(), buffered.stream().mapToLong(Held::len).sum(),
                384 + 104L * model.all().size() + 32L * buffered.size()), map.statistics());
        visitBadly(map, model, query);
    }

    /** Visits backwards as one should not: stops, throws, overflows the stack, uses both maps. */
    private void visitBadly(OffHeapRangeMap map, RangeModel model, MappedRange query) {
        List<Held> expected = model.find(query.offset(), query.len());
        int last = random.nextInt(1 + expected.size());
        int manner = random.nextInt(64);
        List<MappedRange> seen = new ArrayList<>();
        try {
            map.forEachDescending(query.offset(), query.len(),
                    (offset, len, number, fileOffset, major, minor, visited) -> {
                        seen.add(new MappedRange(offset, len, visited.isMemoryType(),
                                new FileLocation(number, fileOffset, major, minor)));
                        for (Pair pair : pairs) {
                            ((VerifiedMap.Layer) pair.map()).map().get(offset);
                        }
                        if (seen.size() > last && manner == 0) {
                            overflow();
                        }
                        if (seen.size() > last && manner < 32) {
                            throw new IOException("enough");
                        }
                        return seen.size() <= last;
                    });
        } catch (IOException | StackOverflowError e) {
            requireEqual("visits before " + e, last + 1, seen.size());
        }
        List<MappedRange> wanted = new ArrayList<>(expected.stream().map(Held::range).toList());
        Collections.reverse(wanted);
        requireEqual("visited backwards",
                wanted.subList(0, Math.min(last + 1, wanted.size())), seen);
    }

    private static int overflow() {
        return 1 + overflow();
    }

    private static Optional<MappedRange> found(List<Held> all, int index) {
        return index < 0 || index >= all.size()
                ? Optional.empty() : Optional.of(all.get(index).range());
    }

    /** Makes a walk hand all its ranges to a reader. */
    private interface Walk {
        void to(VerifiedMap.Reader reader);
    }

    private static void compareRun(
            String subject, List<Held> expected, Walk walk, boolean withBuffers) {
        int[] count = new int[1];
        walk.to((range, buffer) -> {
            int i = count[0]++;
            Held model = i < expected.size() ? expected.get(i) : null;
            if (model == null || !model.range().equals(range)) {
                throw difference(subject + " " + i, model == null ? "none" : model.range(), range);
            }
            if (withBuffers) {
                compareBuffer(model, buffer);
            }
        });
        if (count[0] < expected.size()) {
            throw difference(subject + " " + count[0], expected.get(count[0]), "none");
        }
    }

    private static void compareBuffer(Held model, ByteBuf buffer) {
        if (model.isBuffered() != (buffer != null)) {
            throw difference("buffer of " + model.range(),
                    model.isBuffered() ? "one" : "none", buffer);
        }
        if (buffer != null) {
            // One bulk read: with leak detection on, every access to a buffer is recorded.
            byte[] found = new byte[buffer.readableBytes()];
            buffer.readBytes(found);
            byte[] expected = bytes(model.offset(), model.len(), model.write());
            int at = Arrays.mismatch(expected, found);
            if (at >= 0) {
                throw difference("bytes of " + model.range() + " from byte " + at,
                        "those of write " + model.write(), "others, " + buffer);
            }
        }
    }

    /** Draws a range, at a place that is empty, in line with what is stored around it, or new. */
    private MappedRange range(RangeModel model) {
        long offset = profile.bases[random.nextInt(profile.bases.length)]
                + (long) unit * random.nextInt(profile.positions) + jitter();
        long len = (long) unit * (1 + random.nextInt(LONGEST)) + jitter();
        if (profile == Profile.NATIVE && random.nextInt(50) == 0) {
            len = 0;
        }
        long room = offset > 0 ? Long.MAX_VALUE - 1 - offset : Integer.MAX_VALUE;
        int fitting = (int) Math.min(len, Math.min(room, Integer.MAX_VALUE));
        return new MappedRange(offset, fitting, false, place(model, offset, fitting));
    }

    private FileLocation place(RangeModel model, long offset, int len) {
        int choice = random.nextInt(10);
        if (choice < (profile == Profile.LONG ? 4 : 1)) {
            return new FileLocation(number(), -1, -1, -1);
        }
        if (profile == Profile.LONG && oddPlaces && choice < 8) {
            // One stretch through negative places, as far as 32 bits tell.
            return new FileLocation(1, -(1 << 30), 1, 0).plus(offset, sectorSize);
        }
        List<Held> around = model.find(offset - 1, len == Integer.MAX_VALUE ? len : len + 1);
        if (choice < 6 && !around.isEmpty() && (oddPlaces || profile != Profile.LONG)) {
            MappedRange near = around.get(random.nextInt(around.size())).range();
            FileLocation place = near.location().plus(offset - near.offset(), sectorSize);
            if (oddPlaces || place.offset() >= 0 && !place.isUnversioned()) {
                return place;
            }
        }
        int fileOffset = oddPlaces ? random.nextInt() : random.nextInt(1 << 16);
        return new FileLocation(number(), fileOffset, random.nextInt(2), 1);
    }

    /** Gives where the range lies if some range stored in it is whole there, or a near miss. */
    private FileLocation expectation(RangeModel model, MappedRange range) {
        List<Held> stored = model.find(range.offset(), range.len());
        if (stored.isEmpty()) {
            return range.location();
        }
        MappedRange there = stored.get(random.nextInt(stored.size())).range();
        FileLocation at = there.location();
        int miss = random.nextInt(8) == 0 ? 1 : 0;
        return at.isEmpty() ? at : new FileLocation(at.number(), miss + (int) (at.offset()
                - FileLocation.fileDistance(there.offset() - range.offset(), sectorSize)),
                at.majorVer(), at.minorVer());
    }

    /** Gives a range that mostly reaches around whole stored ones, at the place of one of them. */
    private MappedRange around(RangeModel model, MappedRange range) {
        List<Held> stored = model.find(range.offset(), range.len());
        MappedRange reach = range;
        if (!stored.isEmpty() && random.nextInt(4) > 0) {
            Held first = stored.get(random.nextInt(stored.size()));
            Held last = stored.get(stored.size() - 1);
            long len = (random.nextBoolean() ? first : last).end() - first.offset();
            reach = new MappedRange(first.offset(), (int) Math.min(len, Integer.MAX_VALUE), false,
                    range.location());
        }
        // The layer takes no range of no length.
        return reach.len() == 0 ? range : at(reach, expectation(model, reach));
    }

    private static MappedRange at(MappedRange range, FileLocation location) {
        return new MappedRange(range.offset(), range.len(), false, location);
    }

    private int number() {
        return random.nextBoolean() ? 3 : 200;
    }

    private int jitter() {
        if (random.nextDouble() >= profile.jitter) {
            return 0;
        }
        if (profile == Profile.LONG) {
            // Some maps of whole sectors and low places, where the guard need not look.
            return oddPlaces ? 1 : 0;
        }
        return random.nextInt(unit);
    }

    private Pair newPair() {
        VerifiedMap map = profile == Profile.NATIVE
                ? new VerifiedMap.Native(height, sectorSize)
                : new VerifiedMap.Layer(height, sectorSize);
        return new Pair(map, new RangeModel(sectorSize));
    }

    /** Bytes that follow from their position and the write. */
    private static byte[] bytes(long offset, int len, long write) {
        byte[] bytes = new byte[len];
        for (int i = 0; i < len; i++) {
            bytes[i] = (byte) (write * 31 + offset + i);
        }
        return bytes;
    }

    private static void requireEqual(String subject, Object expected, Object found) {
        if (!expected.equals(found)) {
            throw difference(subject, expected, found);
        }
    }

    private static AssertionError difference(String subject, Object expected, Object found) {
        return new AssertionError(subject + ": " + found + " (expected: " + expected + ")");
    }
}

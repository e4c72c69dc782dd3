package stor.device.bench;

import java.util.ArrayList;
import java.util.EnumMap;
import java.util.List;
import java.util.Map;
import java.util.function.Consumer;
import java.util.stream.Stream;
import stor.device.replay.Difference;
import stor.device.replay.Location;
import stor.device.replay.Range;
import stor.device.skiplist.OffHeapRangeMap.Visitor;

/**
 * Holds all maps against the native methods: every answer while they get the same operations, and
 * their contents afterwards. A map that stores other ranges has to know the same place of each
 * byte; that is told for ranges of whole sectors.
 */
final class Agreement {
    private final String workload;
    private final Map<Contender, RangeMap> maps = new EnumMap<>(Contender.class);

    private Agreement(String workload) {
        this.workload = workload;
        for (Contender contender : Contender.values()) {
            maps.put(contender, contender.create());
        }
    }

    /**
     * Gives all maps the same operations.
     *
     * @return how many ranges the native methods hold afterwards
     * @throws Difference if a map differs
     */
    static int check(String workload, Stream<Operation> operations) {
        Agreement agreement = new Agreement(workload);
        operations.forEach(agreement::apply);
        int ranges = agreement.compareContents();
        agreement.maps.values().forEach(RangeMap::close);
        return ranges;
    }

    private void apply(Operation operation) {
        if (!operation.isQuery()) {
            maps.values().forEach(map -> operation.applyTo(map, null));
            return;
        }
        List<Range> expected = answer(Contender.NATIVE, operation);
        List<Range> cut = cut(expected, operation.offset(), operation.length());
        for (Contender contender : maps.keySet()) {
            compare(contender, answer(contender, operation),
                    contender.hasSameRanges() ? expected : cut);
        }
    }

    private int compareContents() {
        List<Range> expected = list(maps.get(Contender.NATIVE)::forEach);
        maps.forEach((contender, map) -> compare(contender, list(map::forEach), expected));
        return expected.size();
    }

    private void compare(Contender contender, List<Range> found, List<Range> expected) {
        if (contender.hasSameRanges()) {
            compareAll(contender, found, expected);
        } else {
            compareAll(contender, stretches(found), stretches(expected));
        }
    }

    private void compareAll(Contender contender, List<Range> found, List<Range> expected) {
        for (int i = 0; i < Math.max(found.size(), expected.size()); i++) {
            Range ours = i < found.size() ? found.get(i) : null;
            Range theirs = i < expected.size() ? expected.get(i) : null;
            if (ours == null || !ours.equals(theirs)) {
                throw new Difference(workload + ": range " + i + " of " + contender, ours, theirs);
            }
        }
    }

    private List<Range> answer(Contender contender, Operation query) {
        return list(visitor -> query.applyTo(maps.get(contender), visitor));
    }

    private static List<Range> list(Consumer<Visitor> walk) {
        List<Range> ranges = new ArrayList<>();
        walk.accept((offset, length, number, fileOffset, majorVer, minorVer, visited) ->
                ranges.add(new Range(offset, length,
                        new Location(false, (byte) number, fileOffset, majorVer, minorVer),
                        Range.NO_BUFFER)));
        return ranges;
    }

    private static List<Range> cut(List<Range> ranges, long offset, int length) {
        return ranges.stream().map(range -> range.slice(Math.max(range.start(), offset),
                Math.min(range.end(), offset + length), Workloads.SECTOR_SIZE)).toList();
    }

    /** Joins all that lies side by side, on the device and in the file, however it is stored. */
    private static List<Range> stretches(List<Range> ranges) {
        List<Range> stretches = new ArrayList<>();
        for (Range range : ranges) {
            int last = stretches.size() - 1;
            if (last >= 0 && continues(range, stretches.get(last))) {
                Range first = stretches.get(last);
                stretches.set(last, new Range(first.start(),
                        Math.toIntExact(range.end() - first.start()), first.location(),
                        Range.NO_BUFFER));
            } else {
                stretches.add(new Range(
                        range.start(), range.length(), placeOf(range), Range.NO_BUFFER));
            }
        }
        return stretches;
    }

    private static boolean continues(Range range, Range stretch) {
        Location end = stretch.location().isEmpty() ? stretch.location()
                : stretch.location().plus(stretch.length(), Workloads.SECTOR_SIZE);
        return stretch.end() == range.start() && placeOf(range).equals(end);
    }

    /** Gives where a range begins; a piece of an empty one lies nowhere, too. */
    private static Location placeOf(Range range) {
        Location place = range.location();
        return place.major() == -1 && place.minor() == -1 ? Location.EMPTY : place;
    }
}

package stor.device.bench;

import java.util.ArrayList;
import java.util.EnumMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.Callable;
import java.util.concurrent.ExecutionException;
import java.util.function.Consumer;
import java.util.stream.Collectors;
import stor.device.replay.Difference;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.MappedRange;
import stor.device.skiplist.Visitor;

/**
 * Holds all maps against the native methods: every answer while they get the same operations, and
 * their contents afterwards. Neighbours, which those do not tell, are held against a
 * {@link java.util.TreeMap}. A map that stores other ranges has to know the same place of each
 * byte; that is told for ranges of whole sectors.
 *
 * <p>What several threads do to a map at the same time is done by one first, and then together:
 * each answer must be whole ranges as they were stored at some time, without a gap, and the
 * contents must be the same afterwards.
 */
final class Agreement {
    private final Workload workload;
    private final Map<Contender, RangeMap> maps = new EnumMap<>(Contender.class);

    private Agreement(Workload workload) {
        this.workload = workload;
        maps.put(Contender.NATIVE, Contender.NATIVE.create());
        for (Contender contender : workload.contenders()) {
            maps.putIfAbsent(contender, workload.maker().apply(contender));
        }
    }

    /**
     * Gives all maps the same operations.
     *
     * @return how many ranges the native methods hold afterwards
     * @throws Difference if a map differs
     */
    static int check(Workload workload) throws InterruptedException, ExecutionException {
        Agreement agreement = new Agreement(workload);
        workload.operations().forEach(agreement::apply);
        List<MappedRange> contents = agreement.list(Contender.NATIVE);
        for (Contender contender : workload.contenders()) {
            agreement.compare(contender, agreement.list(contender), contents);
        }
        agreement.maps.values().forEach(RangeMap::close);
        if (workload.isShared()) {
            agreement.checkTogether(contents);
        }
        return contents.size();
    }

    private void apply(Operation operation) {
        if (!operation.isQuery()) {
            maps.values().forEach(map -> operation.applyTo(map, null));
            return;
        }
        boolean isFind = operation.kind() == Operation.Kind.FIND;
        List<MappedRange> expected =
                answer(isFind ? Contender.NATIVE : Contender.TREE, operation);
        List<MappedRange> cut =
                isFind ? cut(expected, operation.offset(), operation.length()) : expected;
        for (Contender contender : workload.contenders()) {
            compare(contender, answer(contender, operation),
                    contender.hasSameRanges() ? expected : cut);
        }
    }

    private void checkTogether(List<MappedRange> contents)
            throws InterruptedException, ExecutionException {
        Set<MappedRange> stored = workload.operations().filter(operation -> !operation.isQuery())
                .map(insert -> new MappedRange(
                        insert.offset(), insert.length(), false, insert.at()))
                .collect(Collectors.toSet());
        for (Contender contender : workload.contenders()) {
            try (RangeMap map = workload.maker().apply(contender)) {
                workload.setUp().get().forEach(insert -> insert.applyTo(map, null));
                List<Callable<Void>> tasks = new ArrayList<>();
                workload.batches().forEach(batch -> tasks.add(() -> {
                    batch.forEach(operation -> checkWhole(contender, operation,
                            list(visitor -> operation.applyTo(map, visitor)), stored));
                    return null;
                }));
                SharedUse.callTogether(tasks);
                compareAll(contender, list(map::forEach), contents);
            }
        }
    }

    private void checkWhole(Contender contender, Operation operation, List<MappedRange> found,
            Set<MappedRange> stored) {
        if (!operation.isQuery()) {
            return;
        }
        long position = operation.offset();
        for (MappedRange range : found) {
            if (!range.contains(position) || !stored.contains(range)) {
                throw new Difference(workload.name() + ": a query of " + contender, range,
                        "a range that was stored at " + position);
            }
            position = range.end();
        }
        if (position < operation.offset() + operation.length()) {
            throw new Difference(workload.name() + ": a query of " + contender, found,
                    "ranges up to " + (operation.offset() + operation.length()));
        }
    }

    private void compare(Contender contender, List<MappedRange> found, List<MappedRange> expected) {
        if (contender.hasSameRanges()) {
            compareAll(contender, found, expected);
        } else {
            compareAll(contender, stretches(found), stretches(expected));
        }
    }

    private void compareAll(
            Contender contender, List<MappedRange> found, List<MappedRange> expected) {
        for (int i = 0; i < Math.max(found.size(), expected.size()); i++) {
            MappedRange ours = i < found.size() ? found.get(i) : null;
            MappedRange theirs = i < expected.size() ? expected.get(i) : null;
            if (ours == null || !ours.equals(theirs)) {
                throw new Difference(
                        workload.name() + ": range " + i + " of " + contender, ours, theirs);
            }
        }
    }

    private List<MappedRange> answer(Contender contender, Operation query) {
        return list(visitor -> query.applyTo(maps.get(contender), visitor));
    }

    private List<MappedRange> list(Contender contender) {
        return list(maps.get(contender)::forEach);
    }

    private static List<MappedRange> list(Consumer<Visitor> walk) {
        List<MappedRange> ranges = new ArrayList<>();
        walk.accept((offset, length, number, fileOffset, majorVer, minorVer, visited) ->
                ranges.add(new MappedRange(offset, length, false,
                        new FileLocation(number, fileOffset, majorVer, minorVer))));
        return ranges;
    }

    private static List<MappedRange> cut(List<MappedRange> ranges, long offset, int length) {
        return ranges.stream().map(range -> {
            long start = Math.max(range.offset(), offset);
            long end = Math.min(range.end(), offset + length);
            return new MappedRange(start, (int) (end - start), false, range.location()
                    .plus(start - range.offset(), Workloads.SECTOR_SIZE));
        }).toList();
    }

    /** Joins all that lies side by side, on the device and in the file, however it is stored. */
    private static List<MappedRange> stretches(List<MappedRange> ranges) {
        List<MappedRange> stretches = new ArrayList<>();
        for (MappedRange range : ranges) {
            int last = stretches.size() - 1;
            if (last >= 0 && continues(range, stretches.get(last))) {
                MappedRange first = stretches.get(last);
                stretches.set(last, new MappedRange(first.offset(),
                        Math.toIntExact(range.end() - first.offset()), false, first.location()));
            } else {
                stretches.add(new MappedRange(
                        range.offset(), range.len(), false, placeOf(range)));
            }
        }
        return stretches;
    }

    private static boolean continues(MappedRange range, MappedRange stretch) {
        FileLocation end = stretch.location().isEmpty() ? stretch.location()
                : stretch.location().plus(stretch.len(), Workloads.SECTOR_SIZE);
        return stretch.end() == range.offset() && placeOf(range).equals(end);
    }

    /** Gives where a range begins; a piece of an empty one lies nowhere, too. */
    private static FileLocation placeOf(MappedRange range) {
        FileLocation place = range.location();
        return place.majorVer() == -1 && place.minorVer() == -1 ? FileLocation.EMPTY : place;
    }
}

package stor.device.replay;

import java.util.ArrayList;
import java.util.List;
import java.util.Random;

/**
 * Serves the requests of a trace as a storage device would, with two maps.
 *
 * <p>The <em>buffered</em> map takes every write with its bytes, at the place in the log where they
 * will lie. A write-out records those places in the <em>files</em> map, where neighbours fuse, and
 * gives the buffers back. Moves redirect what the files map holds in a window of the device; the
 * window is looked up on one move and redirected on the next, so that what was overwritten in
 * between must be left alone. A discard stores the empty location in both maps.
 */
final class Replay implements AutoCloseable {
    private static final int MOVE_WINDOW_BYTES = 1 << 20;

    private final ReplayOptions options;
    private final CountedBuffers buffers = new CountedBuffers();
    private final Timings timings = new Timings();
    private final CheckedMap buffered;
    private final CheckedMap files;
    private final SegmentLog log;
    private final Random random;
    private final long[] requestsByKind = new long[TraceReader.Kind.values().length];
    private List<Range> moveCandidates = List.of();
    private long requests;
    private long writeOuts;
    private long writtenOutBytes;
    private long movesTried;
    private long movesDone;
    private long snapshots;

    Replay(ReplayOptions options) {
        this.options = options;
        log = new SegmentLog(options.sectorSize());
        random = new Random(options.seed());
        buffered = newMap();
        files = newMap();
    }

    /** Serves one request and, when it is their turn, the work in the background. */
    void serve(TraceReader.Request request) {
        requests++;
        requestsByKind[request.kind().ordinal()]++;
        switch (request.kind()) {
            case READ -> read(request);
            case WRITE -> write(request);
            case DISCARD -> discard(request);
            default -> throw new AssertionError(request);
        }
        if (requests % options.flushEvery() == 0) {
            writeOut();
        }
        if (requests % options.moveEvery() == 0) {
            move();
        }
        if (requests % options.snapshotEvery() == 0) {
            snapshot();
        }
    }

    /** Writes out what is still buffered and compares both maps as a whole. */
    void finish() {
        writeOut();
        buffered.checkAll();
        files.checkAll();
    }

    /** Destroys both maps, after which no buffer may be in use. */
    @Override
    public void close() {
        buffered.close();
        files.close();
    }

    long requests() {
        return requests;
    }

    long requests(TraceReader.Kind kind) {
        return requestsByKind[kind.ordinal()];
    }

    CheckedMap buffered() {
        return buffered;
    }

    CheckedMap files() {
        return files;
    }

    Timings timings() {
        return timings;
    }

    String backgroundWork() {
        return writeOuts + " write-outs (" + writtenOutBytes + " bytes), " + movesDone + " of "
                + movesTried + " moves redirected something, " + snapshots + " snapshots";
    }

    CountedBuffers buffers() {
        return buffers;
    }

    private void read(TraceReader.Request request) {
        buffered.check(request.offset(), request.length());
        files.check(request.offset(), request.length());
    }

    private void write(TraceReader.Request request) {
        // The seed is part of the id, so that two runs do not write the same bytes.
        long writeId = options.seed() << Integer.SIZE ^ requests;
        buffered.insertWithBuff(
                request.offset(), request.length(), log.append(request.length()), writeId);
    }

    private void discard(TraceReader.Request request) {
        buffered.insert(request.offset(), request.length(), Location.EMPTY);
        files.insert(request.offset(), request.length(), Location.EMPTY);
    }

    private void writeOut() {
        writeOuts++;
        buffered.checkAll();
        for (Range run : recordInFiles()) {
            long released = buffered.compareAndRelease(run.start(), run.length(), run.location());
            Difference.check("bytes written out of " + run, released, (long) run.length());
            writtenOutBytes += released;
        }
        Difference.check("buffers in use after a write-out", buffers.inUse(), 0L);
    }

    /** Records the places of the buffered ranges; gives them as runs that lie in sequence. */
    private List<Range> recordInFiles() {
        List<Range> runs = new ArrayList<>();
        for (Range range : buffered.model().ranges()) {
            if (!range.isBuffered()) {
                continue;
            }
            files.insert(range.start(), range.length(), range.location());
            int last = runs.size() - 1;
            if (last >= 0 && continues(runs.get(last), range)) {
                runs.set(last, runs.get(last).slice(
                        runs.get(last).start(), range.end(), options.sectorSize()));
            } else {
                runs.add(range);
            }
        }
        return runs;
    }

    private boolean continues(Range run, Range next) {
        return run.end() == next.start() && next.end() - run.start() <= Integer.MAX_VALUE
                && run.location().plus(run.length(), options.sectorSize()).equals(next.location());
    }

    private void move() {
        for (Range range : moveCandidates) {
            movesTried++;
            if (files.compareAndSet(range.start(), range.length(), range.location(),
                    log.append(range.length()))) {
                movesDone++;
            }
        }
        moveCandidates = pickMoveCandidates();
    }

    private List<Range> pickMoveCandidates() {
        List<Range> all = files.model().ranges();
        if (all.isEmpty()) {
            return List.of();
        }
        long start = all.get(random.nextInt(all.size())).start();
        long end = start + MOVE_WINDOW_BYTES;
        return files.model().find(start, MOVE_WINDOW_BYTES).stream()
                .map(range -> range.slice(Math.max(start, range.start()),
                        Math.min(end, range.end()), options.sectorSize()))
                .toList();
    }

    private void snapshot() {
        snapshots++;
        for (CheckedMap map : List.of(buffered, files)) {
            try (CheckedMap copy = newMap()) {
                map.copyTo(copy);
                copy.checkAll();
            }
            map.checkAll();
        }
    }

    private CheckedMap newMap() {
        return new CheckedMap(options.height(), options.sectorSize(), buffers, timings);
    }
}

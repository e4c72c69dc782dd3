package stor.device.replay;

import io.netty.buffer.ByteBuf;
import java.io.IOException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.atomic.AtomicLong;
import stor.device.replay.FlushFaults.InjectedFault;
import stor.device.replay.Latencies.Operation;
import stor.device.skiplist.MappedRange;
import stor.device.store.BlockStore;
import stor.device.store.Snapshot;

/**
 * Serves the requests of a trace with a {@link BlockStore} and checks every byte that is read
 * against a {@link Mirror}. One thread makes the requests and takes the snapshots; a second one
 * flushes and a third one compacts.
 *
 * <p>Every method throws a {@link Difference} if a byte is wrong.
 */
final class Replay implements AutoCloseable {
    private final ReplayOptions options;
    private final int sectorSize;
    private final CountedBuffers buffers = new CountedBuffers();
    private final Latencies latencies = new Latencies();
    private final Samples samples = new Samples();
    private final Mirror mirror;
    private final BlockStore store;
    private final Background flusher = new Background("flusher");
    private final Background compactor = new Background("compactor");
    private final AtomicLong killedFlushes = new AtomicLong();
    private final long[] requestsByKind = new long[TraceReader.Kind.values().length];
    private Snapshot snapshot;
    private Mirror snapshotMirror;
    private long requests;
    private long checkedBytes;
    private long snapshots;
    private long snapshotsGivenUp;

    Replay(ReplayOptions options, Path folder) {
        this.options = options;
        sectorSize = options.store().sectorSize();
        mirror = new Mirror(sectorSize);
        store = new BlockStore(folder, options.store());
        store.onStep(new FlushFaults(options.failFlushEvery(), options.seed())::at);
    }

    /** Serves one request and, when it is their turn, starts the work in the background. */
    void serve(TraceReader.Request request) throws IOException {
        requests++;
        requestsByKind[request.kind().ordinal()]++;
        long end = request.offset() + request.length();
        switch (request.kind()) {
            case READ -> read(floor(request.offset()), ceil(end));
            case WRITE -> write(floor(request.offset()), ceil(end));
            case DISCARD -> discard(ceil(request.offset()), floor(end));
            default -> throw new AssertionError(request);
        }
        if (requests % options.flushEvery() == 0) {
            flusher.start(this::flush);
        }
        if (requests % options.compactEvery() == 0) {
            compactor.start(this::compact);
        }
        if (requests % options.snapshotEvery() == 0) {
            takeSnapshot();
        }
        samples.update(requests, store::stats);
    }

    /** Reads all back, compacts as far as that gets, and reads all back again. */
    List<List<MappedRange>> checkAll() throws IOException {
        settle();
        readBack();
        List<List<MappedRange>> layouts = new ArrayList<>();
        layouts.add(store.layout());
        while (compact() > 0) {
            samples.update(requests, store::stats);
        }
        layouts.add(store.layout());
        readBack();
        closeSnapshot();
        return layouts;
    }

    /** Waits for the work in the background and flushes. */
    void settle() throws IOException {
        flusher.await();
        compactor.await();
        while (flush() < 0) {
            // Killed: what is left goes out with the next one.
        }
    }

    /** Ends with the store; the buffers can be counted afterwards. */
    @Override
    public void close() throws IOException {
        flusher.close();
        compactor.close();
        store.close();
    }

    BlockStore store() {
        return store;
    }

    CountedBuffers buffers() {
        return buffers;
    }

    Latencies latencies() {
        return latencies;
    }

    Samples samples() {
        return samples;
    }

    long liveSectors() {
        return mirror.liveSectors();
    }

    long requests() {
        return requests;
    }

    long requests(TraceReader.Kind kind) {
        return requestsByKind[kind.ordinal()];
    }

    long checkedBytes() {
        return checkedBytes;
    }

    long killedFlushes() {
        return killedFlushes.get();
    }

    long snapshots() {
        return snapshots;
    }

    long snapshotsGivenUp() {
        return snapshotsGivenUp;
    }

    private void read(long from, long to) throws IOException {
        byte[] bytes = latencies.measure(
                Operation.READ, () -> store.read(from, (int) (to - from)));
        mirror.check("read", from, bytes);
        checkedBytes += bytes.length;
    }

    private void write(long from, long to) throws IOException {
        int length = (int) (to - from);
        // The seed is part of the id, so that two runs do not write the same bytes.
        long writeId = options.seed() << Integer.SIZE ^ requests;
        byte[] bytes = new byte[length];
        Pattern.fill(bytes, 0, length, from, writeId);
        ByteBuf buffer = buffers.allocator().buffer(length).writeBytes(bytes);
        try {
            write(from, buffer);
        } finally {
            buffer.release();
        }
        mirror.set(from, length, writeId);
    }

    /** Writes, in spite of what stands against it: a killed flush, or the memory of a snapshot. */
    private void write(long offset, ByteBuf buffer) throws IOException {
        while (true) {
            try {
                latencies.measure(Operation.WRITE, () -> {
                    store.write(offset, buffer);
                    return null;
                });
                return;
            } catch (InjectedFault e) {
                killedFlushes.incrementAndGet();
            } catch (OutOfMemoryError e) {
                if (snapshot == null) {
                    throw e;
                }
                snapshotsGivenUp++;
                closeSnapshot();
            }
        }
    }

    private void discard(long from, long to) throws IOException {
        if (from < to) {
            latencies.measure(Operation.DISCARD, () -> {
                store.discard(from, (int) (to - from));
                return null;
            });
            mirror.set(from, (int) (to - from), 0);
        }
    }

    /** Gives the bytes written, or -1 if the flush was killed. */
    private long flush() throws IOException {
        try {
            return latencies.measure(Operation.FLUSH, store::flush);
        } catch (InjectedFault e) {
            killedFlushes.incrementAndGet();
            return -1;
        }
    }

    private long compact() throws IOException {
        return latencies.measure(Operation.COMPACT, store::compact);
    }

    /** Checks the last snapshot, which is as old as can be, and takes another. */
    private void takeSnapshot() throws IOException {
        if (snapshot != null) {
            readBack("snapshot", snapshotMirror, snapshot::read);
            closeSnapshot();
        }
        try {
            snapshot = latencies.measure(Operation.SNAPSHOT, store::snapshot);
            snapshotMirror = mirror.copy();
            snapshots++;
        } catch (OutOfMemoryError e) {
            snapshotsGivenUp++;
        }
    }

    private void closeSnapshot() throws IOException {
        if (snapshot != null) {
            snapshot.close();
            snapshot = null;
        }
    }

    private void readBack() throws IOException {
        readBack("device", mirror, store::read);
        if (snapshot != null) {
            readBack("snapshot", snapshotMirror, snapshot::read);
        }
    }

    /** Something to read. */
    private interface Readable {
        byte[] read(long offset, int length) throws IOException;
    }

    private void readBack(String name, Mirror expected, Readable source) throws IOException {
        int length = Mirror.PAGE_SECTORS * sectorSize;
        for (long offset : expected.pageOffsets()) {
            expected.check(name, offset, source.read(offset, length));
            checkedBytes += length;
        }
    }

    private long floor(long offset) {
        return offset / sectorSize * sectorSize;
    }

    private long ceil(long offset) {
        return floor(offset + sectorSize - 1);
    }
}

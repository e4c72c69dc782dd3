package stor.device.store;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.Arrays;
import java.util.HashSet;
import java.util.List;
import java.util.Random;
import java.util.Set;
import java.util.stream.IntStream;
import java.util.stream.Stream;

/**
 * What each sector of a small device holds, as the id of its last write or 0, and what it may hold
 * after a crash: what it held when the last flush began, or anything since.
 */
final class DeviceModel {
    static final int SECTOR = 512;

    private final int first;
    private final long[] now;
    private final List<Set<Long>> possible;

    /** What is asked of a store; may be made up again from the same random numbers. */
    record Request(int sector, int count, long id) {
        /** Draws a discard (with id 0) or a write, a long one now and then. */
        static Request draw(Random random, int sectors, long id) {
            int most = random.nextInt(20) == 0 ? sectors / 3 : 8;
            int count = 1 + random.nextInt(most);
            return new Request(random.nextInt(sectors - count + 1), count,
                    random.nextInt(4) == 0 ? 0 : id);
        }
    }

    /** Makes a model of some sectors, all zeros. */
    DeviceModel(int first, int sectors) {
        this.first = first;
        now = new long[sectors];
        possible = Stream.generate(() -> (Set<Long>) new HashSet<>(Set.of(0L)))
                .limit(sectors).toList();
    }

    /** Has the store do it; if that throws, nothing has happened. */
    void serve(BlockStore store, Request request) throws IOException {
        long offset = (long) (first + request.sector) * SECTOR;
        // Whatever becomes of a failed request, a crash may not bring back what was never accepted.
        if (request.id == 0) {
            store.discard(offset, request.count * SECTOR);
        } else {
            ByteBuf bytes = Unpooled.buffer(request.count * SECTOR);
            IntStream.range(0, request.count).forEach(i ->
                    bytes.writeBytes(bytes(first + request.sector + i, request.id)));
            try {
                store.write(offset, bytes);
            } finally {
                bytes.release();
            }
        }
        note(request);
    }

    void note(Request request) {
        for (int i = request.sector; i < request.sector + request.count; i++) {
            now[i] = request.id;
            possible.get(i).add(request.id);
        }
    }

    /** Notes that a flush has returned which began when the model was as it is now. */
    void noteFlushed() {
        for (int i = 0; i < now.length; i++) {
            possible.get(i).clear();
            possible.get(i).add(now[i]);
        }
    }

    /** Something to read. */
    interface Source {
        byte[] read(long offset, int length) throws IOException;
    }

    /** Compares all sectors with what they hold. */
    void check(Source source) throws IOException {
        check(source, 0, now.length);
    }

    void check(Source source, int sector, int count) throws IOException {
        ByteBuffer found = ByteBuffer.wrap(
                source.read((long) (first + sector) * SECTOR, count * SECTOR));
        for (int i = sector; i < sector + count; i++) {
            require(i, id(i, found), Set.of(now[i]));
        }
    }

    /** Compares all sectors with what they may hold after a crash, which from then on they hold. */
    void checkAfterCrash(Source source) throws IOException {
        ByteBuffer found =
                ByteBuffer.wrap(source.read((long) first * SECTOR, now.length * SECTOR));
        for (int i = 0; i < now.length; i++) {
            long id = id(i, found);
            require(i, id, possible.get(i));
            now[i] = id;
        }
        noteFlushed();
    }

    /** Gives a copy of what the sectors hold, with nothing else possible. */
    DeviceModel copy() {
        DeviceModel copy = new DeviceModel(first, now.length);
        System.arraycopy(now, 0, copy.now, 0, now.length);
        return copy;
    }

    private void require(int sector, long found, Set<Long> expected) {
        if (!expected.contains(found)) {
            throw new AssertionError("sector " + (first + sector) + ": write "
                    + Long.toHexString(found) + " (expected: one of " + expected + ")");
        }
    }

    /** Reads the id of the next sector, all of which must be of that write and place. */
    private long id(int sector, ByteBuffer found) {
        long id = found.getLong(found.position());
        byte[] bytes = new byte[SECTOR];
        found.get(bytes);
        if (!Arrays.equals(bytes, bytes(first + sector, id))) {
            throw new AssertionError("sector " + (first + sector) + ": torn or misplaced, begins"
                    + " like write " + Long.toHexString(id));
        }
        return id;
    }

    private static byte[] bytes(int sector, long id) {
        ByteBuffer bytes = ByteBuffer.allocate(SECTOR);
        while (bytes.hasRemaining()) {
            bytes.putLong(id).putLong(id == 0 ? 0 : id * 31 + sector + bytes.position());
        }
        return bytes.array();
    }
}

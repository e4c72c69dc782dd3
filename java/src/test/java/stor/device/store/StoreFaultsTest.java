package stor.device.store;

import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Path;
import java.util.Random;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import stor.device.store.DeviceModel.Request;

/** A store on disks that lose power, fail and fill up, at every step that it makes in turn. */
class StoreFaultsTest {
    private static final int SECTORS = 64;
    private static final int SEEDS = Integer.getInteger("store.test.seeds", 2);
    private static final StoreSettings SETTINGS =
            new StoreSettings(DeviceModel.SECTOR, 8 * 520, 16 << 10, 1 << 20, 6);

    /** A store beside its model, and requests drawn at random. */
    private static final class Session {
        private final Random random;
        private final DeviceModel model = new DeviceModel(0, SECTORS);
        private final FaultyDisk disk;
        private BlockStore store;
        private long id;

        Session(long seed, Disk below) {
            random = new Random(seed);
            disk = new FaultyDisk(below);
        }

        void open() throws IOException {
            store = BlockStore.open(disk, SETTINGS);
        }

        /** Makes a number of requests; those that fail have not happened. */
        void run(int requests) throws IOException {
            for (int i = 0; i < requests; i++) {
                int kind = random.nextInt(16);
                Request request = Request.draw(random, SECTORS, ++id);
                try {
                    if (store == null) {
                        open();
                    } else if (kind < 11) {
                        model.serve(store, request);
                    } else if (kind < 13) {
                        store.flush();
                        model.noteFlushed();
                    } else if (kind < 15) {
                        store.compact();
                    } else {
                        BlockStore closing = store;
                        closing.flush();
                        model.noteFlushed();
                        store = null;
                        closing.close();
                    }
                } catch (IOException e) {
                    assertTrue(disk.hasFailed(), () -> "failed for no reason: " + e);
                }
                if (store != null) {
                    model.check(store::read);
                }
            }
        }

        void close() {
            if (store == null) {
                return;
            }
            try {
                store.close();
            } catch (IOException e) {
                assertTrue(disk.hasFailed(), () -> "failed for no reason: " + e);
            }
            store = null;
        }
    }

    @Test
    void aPowerCutAtAnyStepKeepsWhatWasFlushed() throws IOException {
        int cuts = 0;
        // Some faults show after few of the sessions only.
        for (int seed = 0; seed < 4 * SEEDS; seed++) {
            boolean failed = true;
            for (int step = 1; failed; step++) {
                MemoryDisk below = new MemoryDisk();
                Session session = new Session(seed, below);
                // Among every other failure that has just been met.
                session.disk.fail(step - 9, step % 2 == 0 ? 0 : step - 7);
                session.disk.die(step);
                session.run(60);
                failed = session.disk.hasFailed();
                cuts += failed ? 1 : 0;
                MemoryDisk left = below.afterPowerCut(new Random(step));
                session.close();
                Session next = new Session(step, left);
                next.open();
                session.model.checkAfterCrash(next.store::read);
                session.store = next.store;
                session.model.check(session.store::read);
                session.store.close();
            }
        }
        assertTrue(cuts > 400 * SEEDS, "cuts: " + cuts);
    }

    @Test
    void whateverFailsOnceOrForAWhileNothingIsLostAndAllIsWellAfterwards() throws IOException {
        for (int seed = 0; seed < SEEDS; seed++) {
            for (int length : new int[] {1, 2, 1000}) {
                boolean failed = true;
                for (int step = 1; failed; step++) {
                    MemoryDisk below = new MemoryDisk();
                    Session session = new Session(seed, below);
                    session.disk.fail(step, step + length - 1);
                    session.run(60);
                    failed = session.disk.hasFailed();
                    session.disk.fail(Long.MAX_VALUE, 0);
                    if (session.store == null) {
                        session.open();
                    }
                    session.model.check(session.store::read);
                    session.store.flush();
                    while (session.store.compact() > 0) {
                        session.model.check(session.store::read);
                    }
                    try (BlockStore left = BlockStore.open(
                            below.afterPowerCut(new Random(step)), SETTINGS)) {
                        session.model.check(left::read);
                        assertTrue(left.stats().segments() <= 40, left.stats().toString());
                    }
                    session.close();
                }
            }
        }
    }

    @Test
    void aKilledProcessKeepsWhatItHadFlushed(@TempDir Path folder) throws Exception {
        long requests = KilledStore.run(folder, Integer.getInteger("store.test.kills", 3));
        assertTrue(requests > 100, "requests: " + requests);
    }

    @Test
    void aStormOfEverythingLosesNothing(@TempDir Path folder) throws Exception {
        assertTrue(StoreStorm.run(folder, 4000, 9).requests() > 0);
    }
}

package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.DynamicTest;
import org.junit.jupiter.api.TestFactory;
import org.junit.jupiter.api.extension.ExtendWith;

/**
 * Compares maps with the model after every random operation. The properties
 * {@code skiplist.test.operations} and {@code skiplist.test.seed} choose how many and which.
 */
@ExtendWith(LeakHunt.class)
class RandomComparisonTest {
    private static final int OPERATIONS = Integer.getInteger("skiplist.test.operations", 100_000);
    private static final long SEED = Long.getLong("skiplist.test.seed", 42);
    private static final int[] SECTOR_SIZES = {1, 8, 512, 4096};
    private static final int[] HEIGHTS = {1, 4, 12};

    @TestFactory
    List<DynamicTest> mapsAgreeWithTheModelAfterEveryOperation() {
        int combinations = SECTOR_SIZES.length * HEIGHTS.length;
        int operations = (OPERATIONS + combinations - 1) / combinations;
        List<DynamicTest> tests = new ArrayList<>();
        for (int sectorSize : SECTOR_SIZES) {
            for (int height : HEIGHTS) {
                tests.add(DynamicTest.dynamicTest(
                        "sector size " + sectorSize + ", height " + height + ", " + operations
                                + " operations",
                        // On a thread of its own, whose short stack keeps JNI warnings short.
                        () -> InThread.call(() -> compare(height, sectorSize, operations))));
            }
        }
        return tests;
    }

    private static Void compare(int height, int sectorSize, int operations) {
        long seed = SEED + 100L * sectorSize + height;
        RandomOperations maps = new RandomOperations(seed, height, sectorSize);
        try (maps) {
            for (int i = 0; i < operations; i++) {
                try {
                    maps.step();
                } catch (RuntimeException e) {
                    throw new AssertionError("skiplist.test.seed=" + SEED + ", operation " + i
                            + ": " + maps.description(), e);
                }
            }
        }
        assertEquals(0, maps.buffersInUse(), "buffers in use after both maps are gone");
        return null;
    }
}

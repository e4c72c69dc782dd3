package stor.device.replay;

import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.Test;

/** A check is worth what it finds. */
class MirrorTest {
    private static final int SECTOR = 512;

    @Test
    void everyWrongByteIsFound() {
        Mirror mirror = new Mirror(SECTOR);
        mirror.set(SECTOR, 3 * SECTOR, 7);
        mirror.set(2 * SECTOR, SECTOR, 0);
        byte[] right = new byte[5 * SECTOR];
        Pattern.fill(right, SECTOR, SECTOR, SECTOR, 7);
        Pattern.fill(right, 3 * SECTOR, SECTOR, 3 * SECTOR, 7);
        mirror.check("read", 0, right);

        for (int at : new int[] {0, SECTOR, 2 * SECTOR, 3 * SECTOR + 17, 5 * SECTOR - 1}) {
            byte[] wrong = right.clone();
            wrong[at] ^= 1;
            Difference found =
                    assertThrows(Difference.class, () -> mirror.check("read", 0, wrong));
            String expected = "sector at offset " + at / SECTOR * SECTOR + ", byte " + at % SECTOR;
            assertTrue(found.getMessage().contains(expected), found.getMessage());
        }
    }

    @Test
    void anOldWriteAndAWriteOfAnotherSectorAreFound() {
        Mirror mirror = new Mirror(SECTOR);
        mirror.set(0, SECTOR, 1);
        byte[] bytes = new byte[SECTOR];
        Pattern.fill(bytes, 0, SECTOR, 0, 2);
        assertThrows(Difference.class, () -> mirror.check("read", 0, bytes));
        Pattern.fill(bytes, 0, SECTOR, SECTOR, 1);
        assertThrows(Difference.class, () -> mirror.check("read", 0, bytes));
    }
}

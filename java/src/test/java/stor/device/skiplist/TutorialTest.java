package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The first program of a new user. */
class TutorialTest {
    private static final Path PROJECT = Path.of(System.getProperty("skiplist.test.project"));
    private static final Path TUTORIAL =
            PROJECT.resolve("java/src/test/java/stor/device/skiplist/Tutorial.java");

    @TempDir
    private Path empty;

    @Test
    void theFirstExampleOfTheReadmeIsTheTutorial() throws IOException {
        String[] readme = Files.readString(PROJECT.resolve("README.md")).split("```java\n|```");
        String tutorial = Files.readString(TUTORIAL).split("// README: [a-z]+\n")[1];
        // The second mark is indented, too.
        assertEquals(tutorial.stripIndent().stripTrailing(), readme[1].stripTrailing());
    }

    @Test
    void itRunsFromAnEmptyFolderWithTheJarAndNettyOnly() throws Exception {
        String java = ProcessHandle.current().info().command().orElse("java");
        Process program = new ProcessBuilder(java, "-cp",
                System.getProperty("skiplist.test.user.path"), TUTORIAL.toString())
                .directory(empty.toFile()).redirectErrorStream(true).start();
        String output =
                new String(program.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        String expected = """
                0: 4096 bytes in file 3 at 0
                4096: 512 bytes in file 4 at 0, and in memory
                """;
        assertEquals(expected, output);
        assertEquals(0, program.waitFor());
    }
}

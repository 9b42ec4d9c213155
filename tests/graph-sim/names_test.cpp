// The names that the stores allow, and how names are compared.
#include "names.h"

#include "sim_fixture.h"

namespace graph_sim {

namespace {

// What check_name() says: "" when it allows the name, else the inner code or, without one, the
// code.
std::string verdict(flavour kind, const std::string &name, bool folder = false,
                    const std::string &folder_path = "/a")
{
    drive_facts facts;
    facts.id = "3ae1d764b70b25b3";
    facts.kind = kind;
    const drive home(facts);
    try {
        check_name(home, folder_path, name, folder);
    } catch (const api_error &error) {
        EXPECT_EQ(error.status(), 400U);
        EXPECT_EQ(error.code(), "invalidRequest");
        return error.inner_code().empty() ? error.what() : error.inner_code();
    }
    return "";
}

std::string message(flavour kind, const std::string &name)
{
    drive_facts facts;
    facts.id = "3ae1d764b70b25b3";
    facts.kind = kind;
    const drive home(facts);
    try {
        check_name(home, "/dir", name, false);
    } catch (const api_error &error) {
        return error.what();
    }
    return "";
}

constexpr const char *illegal = "The provided name cannot contain any illegal characters.";
constexpr const char *unacceptable = "One of the provided arguments is not acceptable.";

} // namespace

TEST(Names, AllowWhatOnlyLooksForbidden)
{
    for (const char *name : {"#50%.txt", "console.txt", "com.txt", "com10", "a.lock", "~tilde.txt",
                             "forms", "x~$y", "vti_", "....a", "報告", "a'b&c;d"}) {
        EXPECT_EQ(verdict(flavour::business, name), "") << name;
        EXPECT_EQ(verdict(flavour::personal, name), "") << name;
    }
}

TEST(Names, RefuseForbiddenCharactersInTheWordsOfTheStore)
{
    for (const char c : std::string_view("\"*:<>?/\\|\x01\x1F\x7F")) {
        const std::string name = std::string("a") + c + "b";
        EXPECT_EQ(verdict(flavour::business, name), illegal) << name;
        EXPECT_EQ(verdict(flavour::library, name), illegal) << name;
        EXPECT_EQ(verdict(flavour::personal_new, name), "nameContainsInvalidCharacters") << name;
    }
}

TEST(Names, RefuseBlanksAtTheEndsAndADotAtTheEnd)
{
    EXPECT_EQ(message(flavour::business, " a"), illegal);
    EXPECT_EQ(message(flavour::personal, " a"),
              "Path (/dir/ a) contains invalid leading character.");
    EXPECT_EQ(message(flavour::personal, "a "),
              "Path (/dir/a ) contains invalid trailing character.");
    EXPECT_EQ(message(flavour::personal, "a."),
              "Path (/dir/a.) contains invalid trailing character.");
    EXPECT_EQ(message(flavour::business, ""), unacceptable);
}

TEST(Names, RefuseThoseThatTheServiceKeepsForItself)
{
    for (const char *name :
         {".lock", ".LOCK", "CON", "con.txt", "Prn", "AUX.a.b", "nul", "COM0", "com9.log", "LPT5",
          "desktop.ini", "Desktop.INI", "~$a.docx", "my_VTI_x"}) {
        EXPECT_EQ(verdict(flavour::business, name), unacceptable) << name;
        EXPECT_EQ(verdict(flavour::personal, name), "nameContainsInvalidCharacters") << name;
    }
}

TEST(Names, RefuseFormsAtTheRootOfALibraryOnly)
{
    EXPECT_EQ(verdict(flavour::library, "Forms", true, ""), unacceptable);
    EXPECT_EQ(verdict(flavour::business, "forms", true, ""), unacceptable);
    EXPECT_EQ(verdict(flavour::library, "Forms", true, "/a"), "");
    EXPECT_EQ(verdict(flavour::personal, "forms", true, ""), "");
}

TEST(Names, RefuseFoldersThatBeginWithATildeInWorkStoresOnly)
{
    EXPECT_EQ(verdict(flavour::business, "~old", true), unacceptable);
    EXPECT_EQ(verdict(flavour::business, "~old", false), "");
    EXPECT_EQ(verdict(flavour::personal, "~old", true), "");
}

TEST(Names, AreCountedInUnitsOfUtf16)
{
    EXPECT_EQ(utf16_length("aä報𝄞"), 5U);
    std::string signs;
    for (int i = 0; i < 127; ++i) {
        signs += "𝄞";
    }
    EXPECT_EQ(verdict(flavour::business, signs + "a"), "");
    EXPECT_EQ(verdict(flavour::business, signs + "ab"), "pathIsTooLong");
    EXPECT_EQ(verdict(flavour::personal, signs + "ab"), "parameterIsTooLong");
}

TEST(Names, MayNotMakeAPathLongerThan400)
{
    const std::string folder = "/" + std::string(200, 'a');
    EXPECT_EQ(verdict(flavour::business, std::string(199, 'b'), false, folder), "");
    EXPECT_EQ(verdict(flavour::business, std::string(200, 'b'), false, folder), "pathIsTooLong");
}

TEST(Names, CompareComposedAndDecomposedFormsAlike)
{
    EXPECT_EQ(fold_case("Gr\u00F6\u00DFe"), fold_case("GRO\u0308\u00DFE"));
    EXPECT_EQ(fold_case("\u1E69"), fold_case("s\u0307\u0323")) << "the order of marks";
    EXPECT_EQ(fold_case("\uAC00"), fold_case("\u1100\u1161")) << "Hangul";
    EXPECT_NE(fold_case("o"), fold_case("\u00F6"));
    EXPECT_NE(fold_case("\u210C"), fold_case("H")) << "compatibility forms differ";
}

} // namespace graph_sim

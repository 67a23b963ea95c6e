#include <gtest/gtest.h>

#include "statusctl/text/Table.h"

using Lines = std::vector<std::string>;

namespace
{

Table tableOfTwo()
{
    return Table({{"NAME", Table::Alignment::Left}, {"SIZE", Table::Alignment::Right}});
}

} // namespace

TEST(TableTest, withoutRowsHasItsTitles)
{
    EXPECT_EQ(tableOfTwo().lines(), (Lines{"NAME  SIZE"}));
}

TEST(TableTest, isAsWideAsItsWidestCells)
{
    Table table = tableOfTwo();
    table.add({"a long name", "1"});
    table.add({"b", "123456"});
    EXPECT_EQ(table.lines(), (Lines{"NAME           SIZE", "a long name       1", "b            123456"}));
}

TEST(TableTest, hasNoBlanksAtTheEndsOfItsLines)
{
    Table table({{"A", Table::Alignment::Left}, {"B", Table::Alignment::Left}});
    table.add({"1", "long"});
    table.add({"2", ""});
    EXPECT_EQ(table.lines(), (Lines{"A  B", "1  long", "2"}));
}

TEST(TableTest, countsCharactersAndNotBytes)
{
    Table table = tableOfTwo();
    table.add({"\u00e4\u00f6\u00fc\u00df!", "1"});
    table.add({"12345", "2"});
    EXPECT_EQ(table.lines(), (Lines{"NAME   SIZE", "\u00e4\u00f6\u00fc\u00df!     1", "12345     2"}));
}

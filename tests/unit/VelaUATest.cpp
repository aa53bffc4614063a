// Identification strings in a console program (no GUI application).

#include "src/VelaUA.h"
#include "src/internal/VelaUA_p.h"

#include <gtest/gtest.h>

namespace {

std::string Cleaned(const char* text, int len = -1)
{
    CQSString name;
    if (len < 0)
        name.SetData(text);
    else
        name.SetData(reinterpret_cast<const unsigned char*>(text), len);
    CVelaUA::GetEquipmentName(name);
    return name.GetDataPtr();
}

TEST(VelaUATest, NameAndVersion)
{
    CQSString out("old");
    CVelaUA::GetName(out);
    EXPECT_STREQ("PLV2010", out.GetDataPtr());
    CVelaUA::GetVersion(out);
    EXPECT_STREQ("10066", out.GetDataPtr());
}

TEST(VelaUATest, EquipmentNameDropsSeparators)
{
    EXPECT_EQ("N95", Cleaned("N/9_5&|"));
}

TEST(VelaUATest, EmptyEquipmentNameBecomesNA)
{
    EXPECT_EQ("NA", Cleaned(""));
}

TEST(VelaUATest, EquipmentNameOfOnlySeparatorsBecomesNA)
{
    EXPECT_EQ("NA", Cleaned("/_&|"));
}

TEST(VelaUATest, EquipmentNameDropsInvisibleCharacters)
{
    EXPECT_EQ("E71", Cleaned("\tE7\r\n1\x7f", 7));
    EXPECT_EQ("NA", Cleaned("\x01\x02", 2));
}

TEST(VelaUATest, EquipmentNameKeepsOtherText)
{
    EXPECT_EQ("Nokia N9-00", Cleaned("Nokia N9-00"));
}

TEST(VelaUATest, ConsoleScreenInfoUsesTheDefaultScreen)
{
    CQSString out;
    CVelaUA::GetScreenInfo(out);
    EXPECT_STREQ("533024", out.GetDataPtr());
}

TEST(VelaUATest, ScreenInfoDividesBySixteenRoundingDown)
{
    CQSString out;
    velanet::FormatScreenInfo(854, 480, 24, out);
    EXPECT_STREQ("533024", out.GetDataPtr());
    velanet::FormatScreenInfo(480, 854, 24, out);
    EXPECT_STREQ("305324", out.GetDataPtr());
    velanet::FormatScreenInfo(15, 16, 7, out);
    EXPECT_STREQ("017", out.GetDataPtr());
}

TEST(VelaUATest, LongIdentificationString)
{
    CQSString vua2;
    CVelaUA::GetVUA2(vua2);
    EXPECT_STREQ("PLV2010_B2/10066&NA/NA&SYM2&533024&NA&V2", vua2.GetDataPtr());
    CQSString vua;
    CVelaUA::GetVUA(vua);
    EXPECT_TRUE(vua == vua2);
}

}  // namespace
